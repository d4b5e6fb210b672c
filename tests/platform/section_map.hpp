// Reading a section file's section into a map, for the platform and the
// configuration tests.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "qoracore.h"

namespace qpfile {

using Map = std::map<std::string, std::string>;

// A section, key -> value; the int is QLIBCFileGetSection's answer.
inline std::pair<int, Map> section(const std::string &file, const char *name) {
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    PQLIBSZLIST keys = QLIBCSzListAlloc(16);
    const int n = QLIBCFileGetSection(file.c_str(), name, &h);
    QLIBCSzHashEnumKey(h, &keys);
    Map m;
    for (int i = 0; i < keys->nItem; ++i) m[keys->pszItem[i]] = QLIBCSzHashGetValue(h, keys->pszItem[i]);
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(h);
    return {n, m};
}

}  // namespace qpfile
