// Argument vectors for the CUPS tools, built by appending.  Running out of
// memory throws std::bad_alloc, which the frame's guard turns into
// ERR_OUT_OF_MEMORY.
#pragma once

#include <string>
#include <vector>

namespace qp {

class ArgList {
public:
    ArgList &add(std::string arg) {
        args_.push_back(std::move(arg));
        return *this;
    }
    // The vector for QLIBCExecv, ended by NULL; valid until the next add.
    char *const *argv() {
        ptrs_.clear();
        for (std::string &a : args_) ptrs_.push_back(a.data());
        ptrs_.push_back(nullptr);
        return ptrs_.data();
    }

private:
    std::vector<std::string> args_;
    std::vector<char *> ptrs_;
};

}  // namespace qp
