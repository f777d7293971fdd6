#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace evrc_tool {

namespace {

// The temporary file being written, for the interrupt handler. One output is
// open at a time in this program.
char g_pending_temp[4096];

extern "C" void remove_pending_and_exit(int sig) {
    if (g_pending_temp[0] != '\0') unlink(g_pending_temp);
    signal(sig, SIG_DFL);
    raise(sig);
}

void set_pending(const std::string &temp) {
    const std::size_t n = temp.size() < sizeof g_pending_temp ? temp.size() : 0;
    std::memcpy(g_pending_temp, temp.data(), n);
    g_pending_temp[n] = '\0';
    if (n != 0) {
        signal(SIGINT, remove_pending_and_exit);
        signal(SIGTERM, remove_pending_and_exit);
        signal(SIGHUP, remove_pending_and_exit);
    }
}

std::string system_error(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

bool same_file(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

OutputFile::~OutputFile() { discard(); }

void OutputFile::discard() {
    if (fd_ >= 0 && !is_stdout()) close(fd_);
    fd_ = -1;
    if (!temp_.empty()) {
        unlink(temp_.c_str());
        set_pending("");
        temp_.clear();
    }
}

bool OutputFile::open(const std::string &path, std::string &error) {
    discard();
    path_ = path;
    if (path == "-") {
        fd_ = STDOUT_FILENO;
        return true;
    }
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            error = "cannot create: Is a directory";
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            fd_ = ::open(path.c_str(), O_WRONLY | O_TRUNC);
            if (fd_ < 0) error = system_error("cannot create");
            return fd_ >= 0;
        }
        if (access(path.c_str(), W_OK) != 0) {
            error = system_error("cannot create");
            return false;
        }
    }
    // A symbolic link is written through: the file it names is replaced.
    std::string target = path;
    if (char *resolved = realpath(path.c_str(), nullptr)) {
        target = resolved;
        std::free(resolved);
    }
    path_ = target;
    const std::size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string temp = dir + "." + base + ".XXXXXX";
    fd_ = mkstemp(&temp[0]);
    if (fd_ < 0) {
        error = system_error("cannot create");
        return false;
    }
    temp_ = temp;
    set_pending(temp_);
    // mkstemp makes the file private; give it the mode a plain create would.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);
    return true;
}

bool OutputFile::write(const void *data, std::size_t size, std::string &error) {
    const auto *p = static_cast<const std::uint8_t *>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd_, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = system_error("cannot write");
            return false;
        }
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

bool OutputFile::commit(std::string &error) {
    if (is_stdout()) {
        fd_ = -1;
        return true;
    }
    const int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0) {
        error = system_error("cannot write");
        discard();
        return false;
    }
    if (!temp_.empty()) {
        if (rename(temp_.c_str(), path_.c_str()) != 0) {
            error = system_error("cannot create");
            discard();
            return false;
        }
        set_pending("");
        temp_.clear();
    }
    return true;
}

}  // namespace evrc_tool
