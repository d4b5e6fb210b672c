// The pair walk of model detection against a walk driven by sscanf with the
// format "%1024[^:]:%1024[^;]%n", the reference for what one pair is.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stringid/model_walk.hpp"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

qp::DetectedModel reference(const char *s, std::string &maker, std::string &model) {
    qp::DetectedModel f;
    static char key[1025], val[1025];
    const char *p = s;
    while (*p) {
        int n = 0;
        if (std::sscanf(p, "%1024[^:]:%1024[^;]%n", key, val, &n) == 2 && n > 0) {
            const std::string k(key);
            if (!f.has_maker && (k == "MFG" || k == "MANUFACTURER")) {
                maker = val;
                f.has_maker = true;
                if (f.has_model) break;
            } else if (!f.has_model && (k == "MDL" || k == "MODEL")) {
                model = val;
                f.has_model = true;
                if (f.has_maker) break;
            }
            p += n;  // the count is the step, also after a cut value
            if (*p == ';') ++p;
            continue;
        }
        const char *semi = std::strchr(p, ';');
        if (!semi) break;
        p = semi + 1;
    }
    return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string s(reinterpret_cast<const char *>(data), size);
    s = s.substr(0, s.find('\0'));
    const qp::DetectedModel got = qp::walk_devid_pairs(s);

    std::string maker, model;
    const qp::DetectedModel want = reference(s.c_str(), maker, model);
    check(got.has_maker == want.has_maker && got.has_model == want.has_model);
    const char *lo = s.data(), *hi = s.data() + s.size();
    if (got.has_maker) {
        check(got.maker == maker);
        check(got.maker.data() >= lo && got.maker.data() + got.maker.size() <= hi);
    }
    if (got.has_model) {
        check(got.model == model);
        check(got.model.data() >= lo && got.model.data() + got.model.size() <= hi);
    }
    return 0;
}
