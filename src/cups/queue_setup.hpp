// The steps that USB and network queue creation share: the PPD a queue gets
// and the lpadmin run that creates it.  Log lines carry the caller's place.
#pragma once

#include <string>

namespace qp::cups {

// The PPD for a printer's new queue: the caller's file, of which a copy is
// kept under the printer ID; without one, the copy kept from an earlier call;
// else none (empty).  false, logged, when the caller's file does not exist.
bool choose_ppd(const char *ppd_file, const char *printer_id, std::string &ppd, const char *file, int line);

// "lpadmin -p QUEUE -E -v URI [-L HOST] [-P PPD]" (HOST: this machine's
// name, when it has one), tried three times two seconds apart.  0 when it
// ran; -1 after the third failure, each failure logged.
int create_queue(const char *queue, const char *uri, const std::string &ppd, const char *file, int line);

}  // namespace qp::cups

#define QP_CHOOSE_PPD(ppd_file, printer_id, ppd) \
    ::qp::cups::choose_ppd((ppd_file), (printer_id), (ppd), __FILE_NAME__, __LINE__)
#define QP_CREATE_QUEUE(queue, uri, ppd) ::qp::cups::create_queue((queue), (uri), (ppd), __FILE_NAME__, __LINE__)
