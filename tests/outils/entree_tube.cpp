// entree_tube.cpp - standard input from a pipe for reading tests (see entree_tube.h).
#include "entree_tube.h"

#include <cstdio>
#include <stdio_ext.h>
#include <unistd.h>

// Puts a fresh pipe on descriptor 0 and starts its writer, which writes
// every byte then closes its end (end of input for the reader).
EntreeTube::EntreeTube(const std::string &s_Octets) {
    int t_Tube[2];
    if (pipe(t_Tube) != 0) return;
    i_FdSauve = dup(0);
    dup2(t_Tube[0], 0);
    close(t_Tube[0]);
    __fpurge(stdin);
    clearerr(stdin);
    th_Ecrivain = std::thread([i_Fd = t_Tube[1], s_Octets] {
        for (std::size_t t = 0; t < s_Octets.size();) {
            ssize_t n = write(i_Fd, s_Octets.data() + t, s_Octets.size() - t);
            if (n <= 0) break;
            t += static_cast<std::size_t>(n);
        }
        close(i_Fd);
    });
}

// Drains what is left so the writer ends, then restores descriptor 0.
EntreeTube::~EntreeTube() {
    (void)Reste();
    if (th_Ecrivain.joinable()) th_Ecrivain.join();
    __fpurge(stdin);
    clearerr(stdin);
    if (i_FdSauve >= 0) {
        dup2(i_FdSauve, 0);
        close(i_FdSauve);
    }
}

// Reads standard input to its end through stdio.
std::string EntreeTube::Reste() {
    std::string s;
    int c;
    while ((c = getchar()) != EOF) s.push_back(static_cast<char>(c));
    return s;
}
