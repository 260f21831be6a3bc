// entree_tube.h - feeds a byte stream to the process's standard input.
//
// EntreeTube puts the read end of a pipe on descriptor 0 for its lifetime,
// with a thread writing the given bytes into the other end (so streams larger
// than the pipe's buffer work) and closing it; stdio's stdin is purged and
// its end-of-file flag cleared, so the next reads see exactly these bytes.
// The former descriptor 0 comes back on destruction.
#pragma once

#include <string>
#include <thread>

class EntreeTube {
public:
    explicit EntreeTube(const std::string &s_Octets);
    ~EntreeTube();
    EntreeTube(const EntreeTube &) = delete;
    EntreeTube &operator=(const EntreeTube &) = delete;

    // Bytes still unread on standard input (stdio's buffer first), to its end.
    static std::string Reste();

private:
    int i_FdSauve = -1;
    std::thread th_Ecrivain;
};

#include <gtest/gtest.h>

// Runs the callable with standard error captured; returns what it wrote.
template <typename F>
std::string CaptureErreur(F f) {
    ::testing::internal::CaptureStderr();
    f();
    fflush(stderr);
    return ::testing::internal::GetCapturedStderr();
}
