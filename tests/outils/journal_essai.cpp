// journal_essai.cpp - a private system logger for timed runs (see
// journal_essai.h).
#include "journal_essai.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "processus.h"

namespace {
bool sb_Prive = false;  // this process sees a private /dev
}  // namespace

// Sets up the private logger when the host has none; see the header.
std::string JournalPrive(const std::string &s_Rep) {
    if (access("/dev/log", F_OK) == 0) return "the host's system logger";
    const std::string s_Hote = s_Rep + "/dev-hote", s_Dev = s_Rep + "/dev";
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mkdir(s_Hote.c_str(), 0755) != 0 || mkdir(s_Dev.c_str(), 0755) != 0 ||
        mount("/dev", s_Hote.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return std::string("the console (no system logger, and no private one: ") + strerror(errno) +
               "); the times include it";
    DIR *pst_Rep = opendir("/dev");
    for (dirent *e; pst_Rep != nullptr && (e = readdir(pst_Rep)) != nullptr;)
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            symlink((s_Hote + "/" + e->d_name).c_str(), (s_Dev + "/" + e->d_name).c_str());
    if (pst_Rep != nullptr) closedir(pst_Rep);
    int i_Fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un st = {};
    st.sun_family = AF_UNIX;
    strncpy(st.sun_path, (s_Dev + "/log").c_str(), sizeof st.sun_path - 1);
    if (bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 ||
        mount(s_Dev.c_str(), "/dev", nullptr, MS_BIND, nullptr) != 0)
        return std::string("the console (private logger not set up: ") + strerror(errno) +
               "); the times include it";
    sb_Prive = true;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        static char pc[8192];
        for (;;) recv(i_Fd, pc, sizeof pc, 0);
    }
    close(i_Fd);
    return "a private /dev/log, read and dropped (this machine has no system logger)";
}

// Undoes the private /dev of this process's own namespace and removes its
// entries (links and the socket: nothing of the host's /dev is touched).
void RetireJournalPrive(const std::string &s_Rep) {
    const std::string s_Hote = s_Rep + "/dev-hote", s_Dev = s_Rep + "/dev";
    if (sb_Prive) umount2("/dev", MNT_DETACH);
    sb_Prive = false;
    if (umount2(s_Hote.c_str(), MNT_DETACH) != 0 && errno != ENOENT && errno != EINVAL) return;
    for (const std::string &s : FichiersCommencantPar(s_Dev, "")) unlink(s.c_str());
    rmdir(s_Dev.c_str());
    rmdir(s_Hote.c_str());
}
