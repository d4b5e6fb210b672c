/* A consumer of the installed library: it links and runs.  The public
 * header comes first (it pulls in what it needs) and twice (its guard holds). */
#include <qoraprinter.h>
#include <qoraprinter.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    char szStringId[] = "MFG:ACME;MDL:Laser 100;";
    char szModel[64];
    if (QORAPrinterConfStringIdGetModel(szStringId, szModel, sizeof szModel) != 0) return 1;
    if (strcmp(szModel, "Laser 100") != 0) return 2;
    /* A bad argument reaches the core library's error slot. */
    if (QORAPrinterConfStringIdParse(NULL, "MDL:", szModel, sizeof szModel) != -1) return 3;
    if (QLIBCErrGet() != 0x0D00) return 4;
    puts(szModel);
    return 0;
}
