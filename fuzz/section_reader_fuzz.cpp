// Section files with arbitrary bytes: reading never fails badly, values come
// back terminated within their buffer, and rewriting one section leaves the
// bytes before and after it exactly as they were.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qoracore.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

std::string path() { return "/tmp/qp_section_fuzz_" + std::to_string(::getpid()) + ".conf"; }

void write_all(const std::string &p, const std::string &text) {
    FILE *f = std::fopen(p.c_str(), "wb");
    check(f != nullptr);
    check(std::fwrite(text.data(), 1, text.size(), f) == text.size());
    check(std::fclose(f) == 0);
}

std::string read_all(const std::string &p) {
    std::string out;
    FILE *f = std::fopen(p.c_str(), "rb");
    check(f != nullptr);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    std::fclose(f);
    return out;
}

void read_sections(const std::string &file, const std::string &text) {
    // A name the input itself offers, and some fixed ones.
    std::string offered;
    if (size_t a = text.find('['); a != std::string::npos)
        if (size_t b = text.find(']', a); b != std::string::npos) offered = text.substr(a + 1, b - a - 1);
    offered = offered.substr(0, offered.find('\0'));
    for (const std::string &name : {offered, std::string("a"), std::string("Google Cloud Print")}) {
        PQLIBSZHASH h = QLIBCSzHashAlloc(16);
        check(h != nullptr);
        const int n = QLIBCFileGetSection(file.c_str(), name.c_str(), &h);
        check(n < 0 || n == QLIBCSzHashCount(h));
        QLIBCSzHashFree(h);
        for (const char *key : {"a", "key", "driver"}) {
            char buf[9];
            std::memset(buf, 0x5a, sizeof buf);
            if (QLIBCFileGetSectionValue(file.c_str(), name.c_str(), key, buf, 8) >= 0) {
                check(::strnlen(buf, 8) < 8);
                check(buf[8] == 0x5a);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string file = path();
    const std::string input(reinterpret_cast<const char *>(data), size);
    write_all(file, input);
    read_sections(file, input);

    // Rewrite a section placed between two halves of the input.
    if (input.find("qpfuzz") == std::string::npos) {
        std::string before = input.substr(0, size / 2);
        if (!before.empty() && before.back() != '\n') before += '\n';
        const std::string after = "[qpfuzz-after]\n" + input.substr(size / 2);
        write_all(file, before + "[qpfuzz]\n\told = 1\n" + after);

        PQLIBSZHASH h = QLIBCSzHashAlloc(16);
        check(h != nullptr);
        check(QLIBCSzHashSetValue(&h, "new", "2") >= 0);
        check(QLIBCSzHashSetValue(&h, "other key", "x = y") >= 0);
        check(QLIBCFileSetSection(file.c_str(), "qpfuzz", "qpfuzz", h, "\t%s = %s\n") >= 1);
        QLIBCSzHashFree(h);

        const std::string want = before + "[qpfuzz]\n\tnew = 2\n\tother key = x = y\n" + after;
        check(read_all(file) == want);

        PQLIBSZHASH back = QLIBCSzHashAlloc(16);
        check(QLIBCFileGetSection(file.c_str(), "qpfuzz", &back) == 2);
        const char *v = QLIBCSzHashGetValue(back, "other key");
        check(v && std::strcmp(v, "x = y") == 0);
        QLIBCSzHashFree(back);
    }
    ::unlink(file.c_str());
    return 0;
}
