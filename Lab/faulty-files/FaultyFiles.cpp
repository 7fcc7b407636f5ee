// Preloaded into a program, has one of its calls that change files fail, or the program end in it. The file that
// FAULT_FILE names says which: "3 fail" or "3 end" for the third call from the file's appearance on. It is removed
// when that call comes.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int calls = 0;

// What stands in the file; 0 for no number.
struct Wish {
    int number = 0;
    char word[8] = "";
};

Wish wish() {
    Wish read;
    const char* const name = std::getenv("FAULT_FILE");
    const long file = name == nullptr ? -1 : syscall(SYS_openat, AT_FDCWD, name, O_RDONLY);
    if (file < 0) return read;
    char text[32] = "";
    if (syscall(SYS_read, file, text, sizeof text - 1) > 0)
        std::sscanf(text, "%d %7s", &read.number, read.word);
    syscall(SYS_close, file);
    return read;
}

// True: this call is to fail.
bool isDue() {
    const auto wanted = wish();
    if (wanted.number == 0) {
        calls = 0;
        return false;
    }
    if (++calls != wanted.number) return false;
    syscall(SYS_unlinkat, AT_FDCWD, std::getenv("FAULT_FILE"), 0);
    if (std::strcmp(wanted.word, "end") == 0) syscall(SYS_exit_group, 9);
    errno = EIO;
    return true;
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool changes(int flags) { return (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0; }

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (changes(flags) && isDue()) return -1;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

// Half of what is to be written is, before the fault.
ssize_t write(int file, const void* bytes, size_t length) {
    struct stat status {};
    const bool isFile = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    if (!isFile || !isDue()) return syscall(SYS_write, file, bytes, length);
    syscall(SYS_write, file, bytes, length / 2);
    errno = EIO;
    return -1;
}

int fsync(int file) { return isDue() ? -1 : next<int(int)>("fsync")(file); }
int fchmod(int file, mode_t mode) noexcept {
    return isDue() ? -1 : next<int(int, mode_t)>("fchmod")(file, mode);
}
int fchown(int file, uid_t user, gid_t group) noexcept {
    return isDue() ? -1 : next<int(int, uid_t, gid_t)>("fchown")(file, user, group);
}
int rename(const char* from, const char* to) noexcept {
    return isDue() ? -1 : next<int(const char*, const char*)>("rename")(from, to);
}
int unlink(const char* path) noexcept {
    return isDue() ? -1 : next<int(const char*)>("unlink")(path);
}

}  // extern "C"
