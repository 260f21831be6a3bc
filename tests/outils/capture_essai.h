// capture_essai.h - the records of the capture program that stands in for
// sendmail and the Sympa queue programs (tests/outils/programmes).
//
// A Capture makes a fresh directory and names it in CAPTURE_REPERTOIRE for
// this process and the programs it starts; Appels() reads back every call
// recorded there, in order.  The directory and the capture variables go
// with the Capture.
#pragma once

#include <string>
#include <vector>

// One recorded call: its argument vector (argv[0] included) and its input.
struct Appel {
    std::vector<std::string> v_Argv;
    std::string s_Entree;
    // The recipients: what follows "--".
    std::vector<std::string> Destinataires() const;
};

struct Capture {
    std::string s_Rep;
    Capture();
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    // The calls recorded, in order.
    std::vector<Appel> Appels() const;
    // Makes call k (from 1) exit with the status.
    void StatutAppel(int k, int i_Statut) const;
};

// The capture program, as the test build's commands name it.
extern const std::string CAPTURE;
