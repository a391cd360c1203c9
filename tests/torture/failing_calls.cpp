// SPDX-License-Identifier: Apache-2.0
//
// A library to preload: it counts the calls of a program that may fail, and lets one of them fail.
//
//   FAILING_CALLS_LIST=FILE                 a line is appended for each call: "NAME ORDINAL WAYS STACK".
//                                           WAYS is the number of ways in which it may fail; STACK tells
//                                           call stacks from each other, in other runs too
//   FAILING_CALLS_FAIL=NAME:ORDINAL:WAY     lets the ORDINAL-th call of NAME fail (from 1) in one of its
//                                           ways (from 0); the list then has one line "failed NAME ORDINAL
//                                           WAY" and the call stack
//   FAILING_CALLS_TICK_MS=N                 alarm(2) rings after N milliseconds, whatever it was asked for
//
// "new" counts the distinct call stacks of operator new, not its calls. A connection that a failure has ended
// stays ended, as it would be; everything else fails once. What happens before main() is left alone. Standard
// error never fails: it tells how the run went.
#include <libssh2.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// ---- What is asked for. Nothing in here may allocate or call what is replaced below. ----

struct Plan {
    char name[64] = "";
    unsigned long ordinal = 0;
    int way = 0;
    int list = -1;
    long tickMs = 0;
};

Plan plan;
bool isActive = false;
int sshSocket = -1;      // the connection of the SSH session
int forgedSshError = 0;  // what libssh2_session_last_error() is to tell

void openList(const char* path) {
    const long fd = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    // Out of the way of the numbers that the program gets for its own files.
    constexpr int kFarAway = 900;
    plan.list = static_cast<int>(syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, kFarAway));
    syscall(SYS_close, fd);
}

void readPlan() {
    if (const char* const path = getenv("FAILING_CALLS_LIST")) {
        openList(path);
    }
    if (const char* const fault = getenv("FAILING_CALLS_FAIL")) {
        if (sscanf(fault, "%63[^:]:%lu:%d", plan.name, &plan.ordinal, &plan.way) != 3) {
            _exit(120);
        }
    }
    if (const char* const tick = getenv("FAILING_CALLS_TICK_MS")) {
        plan.tickMs = strtol(tick, nullptr, 10);
    }
}

void tell(const char* text, int size) {
    if (plan.list >= 0 && size > 0) {
        syscall(SYS_write, plan.list, text, static_cast<std::size_t>(size));
    }
}

// ---- Call stacks ----

constexpr int kMostFrames = 64;

struct Stack {
    std::uintptr_t frames[kMostFrames];
    int size = 0;

    static Stack ofCaller();
};

_Unwind_Reason_Code addFrame(_Unwind_Context* context, void* data) {
    auto& stack = *static_cast<Stack*>(data);
    stack.frames[stack.size++] = _Unwind_GetIP(context);
    return stack.size < kMostFrames ? _URC_NO_REASON : _URC_END_OF_STACK;
}

Stack Stack::ofCaller() {
    Stack stack;
    _Unwind_Backtrace(&addFrame, &stack);
    return stack;
}

constexpr std::uint64_t kNoHash = 14695981039346656037U;

std::uint64_t extend(std::uint64_t hash, std::uint64_t by) {
    hash = (hash ^ by) * 1099511628211U;
    return hash ^ (hash >> 29);
}

std::uint64_t hashOf(const Stack& stack) {
    std::uint64_t hash = kNoHash;
    for (int i = 0; i < stack.size; ++i) {
        hash = extend(hash, stack.frames[i]);
    }
    return hash | 1U;  // 0 marks a free place
}

/// The same in each run, wherever the program and its libraries are loaded.
std::uint64_t lastingHashOf(const Stack& stack) {
    std::uint64_t hash = kNoHash;
    for (int i = 0; i < stack.size; ++i) {
        Dl_info place{};
        if (dladdr(reinterpret_cast<void*>(stack.frames[i]), &place) != 0 && place.dli_fname != nullptr) {
            for (const char* c = place.dli_fname; *c != '\0'; ++c) {
                hash = extend(hash, static_cast<unsigned char>(*c));
            }
            hash = extend(hash, stack.frames[i] - reinterpret_cast<std::uintptr_t>(place.dli_fbase));
        }
    }
    return hash;
}

/// Whether no such stack has been seen before.
bool isNew(const Stack& stack) {
    constexpr std::size_t kPlaces = std::size_t{1} << 16;
    static std::uint64_t seen[kPlaces];
    const std::uint64_t hash = hashOf(stack);
    std::size_t place = hash % kPlaces;
    for (std::size_t tries = 0; tries < kPlaces; ++tries, place = (place + 1) % kPlaces) {
        if (seen[place] == hash) {
            return false;
        }
        if (seen[place] == 0) {
            seen[place] = hash;
            return true;
        }
    }
    return false;
}

/// What is to be taken from an address for addr2line to know it: nothing where the file has fixed addresses.
std::uintptr_t linkedAt(const Dl_info& place) {
    const auto* const header = static_cast<const ElfW(Ehdr)*>(place.dli_fbase);
    return header->e_type == ET_EXEC ? 0 : reinterpret_cast<std::uintptr_t>(place.dli_fbase);
}

void tellStack() {
    const Stack stack = Stack::ofCaller();
    for (int i = 0; i < stack.size; ++i) {
        Dl_info place{};
        char line[512];
        if (dladdr(reinterpret_cast<void*>(stack.frames[i] - 1), &place) != 0 && place.dli_fname != nullptr) {
            tell(line, snprintf(line, sizeof line, "  %.200s 0x%lx %.200s\n", place.dli_fname,
                                static_cast<unsigned long>(stack.frames[i] - 1 - linkedAt(place)),
                                place.dli_sname != nullptr ? place.dli_sname : "?"));
        }
    }
}

// ---- One kind of call ----

constexpr int kMostWays = 8;

// Besides errno values and negative results.
constexpr int kPart = 10001;         // only a part of the data is taken
constexpr int kEnd = 10002;          // the other side has closed the connection
constexpr int kInterrupted = 10003;  // a signal came while it went on

struct Point {
    const char* name;
    int ways[kMostWays];  // ended by a 0
    void* next = nullptr;
    unsigned long calls = 0;

    int countOfWays() const {
        int count = 0;
        while (count < kMostWays && ways[count] != 0) {
            ++count;
        }
        return count;
    }

    /// 0, or the way in which this call fails.
    int failure() {
        if (!isActive) {
            return 0;
        }
        const int error = errno;
        ++calls;
        const int count = countOfWays();
        char line[128];
        int chosen = 0;
        if (plan.ordinal == 0) {
            tell(line, snprintf(line, sizeof line, "%s %lu %d %lx\n", name, calls, count,
                                static_cast<unsigned long>(lastingHashOf(Stack::ofCaller()))));
        } else if (calls == plan.ordinal && plan.way < count && strcmp(name, plan.name) == 0) {
            plan.ordinal = ~0UL;  // once
            tell(line, snprintf(line, sizeof line, "failed %s %lu %d\n", name, calls, plan.way));
            tellStack();
            chosen = ways[plan.way];
        }
        errno = error;
        return chosen;
    }
};

template <typename Function>
Function* nextOf(Point& point, Function* /*type*/) {
    if (point.next == nullptr) {
        point.next = dlsym(RTLD_NEXT, point.name);
    }
    return reinterpret_cast<Function*>(point.next);
}

void* lookUp(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

/// Ends a connection for good.
void cut(int fd) {
    static const auto next = reinterpret_cast<int (*)(int, int)>(lookUp("shutdown"));
    const int error = errno;
    next(fd, SHUT_RDWR);
    errno = error;
}

/// The addresses of the program itself, without its libraries.
struct ProgramRange {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    void find() {
        const auto* const headers = reinterpret_cast<const ElfW(Phdr)*>(getauxval(AT_PHDR));
        const unsigned long count = getauxval(AT_PHNUM);
        for (unsigned long i = 0; i < count; ++i) {
            if (headers[i].p_type == PT_PHDR) {
                begin = getauxval(AT_PHDR) - headers[i].p_vaddr;
            }
        }
        for (unsigned long i = 0; i < count; ++i) {
            const std::uintptr_t past = begin + headers[i].p_vaddr + headers[i].p_memsz;
            end = headers[i].p_type == PT_LOAD && past > end ? past : end;
        }
    }
};

ProgramRange programRange;

/// Whether `address` is code of the program itself, not of a library.
bool isInProgram(const void* address) {
    const auto place = reinterpret_cast<std::uintptr_t>(address);
    return place >= programRange.begin && place < programRange.end;
}

bool isLostConnection(int sshError) {
    return sshError == LIBSSH2_ERROR_SOCKET_SEND || sshError == LIBSSH2_ERROR_SOCKET_RECV ||
           sshError == LIBSSH2_ERROR_SOCKET_DISCONNECT || sshError == LIBSSH2_ERROR_TIMEOUT;
}

/// What libssh2 does besides returning `error`.
void forgeSshError(int error) {
    forgedSshError = error;
    if (isLostConnection(error) && sshSocket >= 0) {
        cut(sshSocket);
    }
}

}  // namespace

// Declares a function that stands in for `symbol`, without asking the system's headers how they declare it.
#define STANDS_FOR(type, symbol, parameters)                                                             \
    extern "C" __attribute__((visibility("default"))) type standIn_##symbol parameters __asm__(#symbol); \
    type standIn_##symbol parameters

#define NEXT(symbol) nextOf(point, &standIn_##symbol)

// A function that fails by returning `failed` and setting errno.
#define FAILS_WITH_ERRNO(type, failed, symbol, parameters, arguments, ...) \
    STANDS_FOR(type, symbol, parameters) {                                 \
        static constinit Point point{#symbol, {__VA_ARGS__}};              \
        if (const int error = point.failure(); error != 0) {               \
            errno = error;                                                 \
            return failed;                                                 \
        }                                                                  \
        return NEXT(symbol) arguments;                                     \
    }

// A function of libssh2 that fails by returning a negative number.
#define FAILS_WITH_SSH_ERROR(type, symbol, parameters, arguments, ...) \
    STANDS_FOR(type, symbol, parameters) {                             \
        static constinit Point point{#symbol, {__VA_ARGS__}};          \
        forgedSshError = 0;                                            \
        if (const int error = point.failure(); error != 0) {           \
            forgeSshError(error);                                      \
            return error;                                              \
        }                                                              \
        return NEXT(symbol) arguments;                                 \
    }

// A function of libssh2 that fails by returning a null pointer.
#define FAILS_WITH_SSH_NULL(type, symbol, parameters, arguments, ...) \
    STANDS_FOR(type, symbol, parameters) {                            \
        static constinit Point point{#symbol, {__VA_ARGS__}};         \
        forgedSshError = 0;                                           \
        if (const int error = point.failure(); error != 0) {          \
            forgeSshError(error);                                     \
            return nullptr;                                           \
        }                                                             \
        return NEXT(symbol) arguments;                                \
    }

// A function of another library that fails by returning `failed` where the program itself calls it.
#define FAILS_FOR_PROGRAM(type, failed, symbol, parameters, arguments)          \
    STANDS_FOR(type, symbol, parameters) {                                      \
        static constinit Point point{#symbol, {ENOMEM}};                        \
        if (isInProgram(__builtin_return_address(0)) && point.failure() != 0) { \
            return failed;                                                      \
        }                                                                       \
        return NEXT(symbol) arguments;                                          \
    }

// ---- Begin ----

namespace {

int (*programsMain)(int, char**, char**) = nullptr;

int countedMain(int argc, char** argv, char** environment) {
    isActive = plan.list >= 0 || plan.ordinal != 0;
    return programsMain(argc, argv, environment);
}

}  // namespace

STANDS_FOR(int, __libc_start_main,
           (int (*main)(int, char**, char**), int argc, char** argv, void (*init)(), void (*fini)(),
            void (*unload)(), void* stackEnd)) {
    readPlan();
    programRange.find();
    programsMain = main;
    return reinterpret_cast<decltype(&standIn___libc_start_main)>(lookUp("__libc_start_main"))(
        &countedMain, argc, argv, init, fini, unload, stackEnd);
}

// ---- Memory ----

namespace {

bool allocationFails() {
    static constinit Point point{"new", {ENOMEM}};
    const bool isAsked = plan.ordinal == 0 || (plan.ordinal != ~0UL && strcmp(plan.name, "new") == 0);
    return isActive && isAsked && isNew(Stack::ofCaller()) && point.failure() != 0;
}

void* allocate(std::size_t size) {
    return allocationFails() ? nullptr : malloc(size != 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    void* const memory = allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}

__attribute__((visibility("default"))) void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}

__attribute__((visibility("default"))) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}

__attribute__((visibility("default"))) void* operator new[](std::size_t size,
                                                            const std::nothrow_t&) noexcept {
    return allocate(size);
}

__attribute__((visibility("default"))) void operator delete(void* memory) noexcept {
    free(memory);
}

__attribute__((visibility("default"))) void operator delete[](void* memory) noexcept {
    free(memory);
}

__attribute__((visibility("default"))) void operator delete(void* memory, std::size_t) noexcept {
    free(memory);
}

__attribute__((visibility("default"))) void operator delete[](void* memory, std::size_t) noexcept {
    free(memory);
}

FAILS_FOR_PROGRAM(char*, nullptr, strdup, (const char* text), (text))
FAILS_FOR_PROGRAM(void*, nullptr, malloc, (std::size_t size), (size))

// ---- Files ----

namespace {

bool takesMode(int flags) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0;
}

mode_t modeOf(int flags, va_list rest) {
    return takesMode(flags) ? va_arg(rest, mode_t) : 0;
}

}  // namespace

#define OPENS(symbol)                                                         \
    STANDS_FOR(int, symbol, (const char* path, int flags, ...)) {             \
        static constinit Point point{#symbol, {EMFILE, EACCES, EIO, ENOSPC}}; \
        va_list rest;                                                         \
        va_start(rest, flags);                                                \
        const mode_t mode = modeOf(flags, rest);                              \
        va_end(rest);                                                         \
        if (const int error = point.failure(); error != 0) {                  \
            errno = error;                                                    \
            return -1;                                                        \
        }                                                                     \
        return NEXT(symbol)(path, flags, mode);                               \
    }

OPENS(open)
OPENS(open64)
FAILS_WITH_ERRNO(int, -1, __open_2, (const char* path, int flags), (path, flags), EMFILE, EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, __open64_2, (const char* path, int flags), (path, flags), EMFILE, EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, __openat_2, (int directory, const char* path, int flags), (directory, path, flags),
                 EMFILE, EACCES, EIO)

STANDS_FOR(int, openat, (int directory, const char* path, int flags, ...)) {
    static constinit Point point{"openat", {EMFILE, EACCES, EIO, ENOSPC}};
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = modeOf(flags, rest);
    va_end(rest);
    if (const int error = point.failure(); error != 0) {
        errno = error;
        return -1;
    }
    return NEXT(openat)(directory, path, flags, mode);
}

FAILS_WITH_ERRNO(FILE*, nullptr, fopen, (const char* path, const char* mode), (path, mode), EMFILE, EACCES)
FAILS_WITH_ERRNO(FILE*, nullptr, fopen64, (const char* path, const char* mode), (path, mode), EMFILE, EACCES)
FAILS_WITH_ERRNO(void*, nullptr, opendir, (const char* path), (path), EMFILE, EACCES)
FAILS_WITH_ERRNO(void*, nullptr, fdopendir, (int fd), (fd), ENOMEM)
FAILS_WITH_ERRNO(void*, nullptr, readdir, (void* directory), (directory), EIO)
FAILS_WITH_ERRNO(int, -1, mkstemp64, (char* path), (path), EACCES, ENOSPC, EMFILE)
FAILS_WITH_ERRNO(ssize_t, -1, read, (int fd, void* data, std::size_t size), (fd, data, size), EIO, EINTR)
FAILS_WITH_ERRNO(ssize_t, -1, __read_chk, (int fd, void* data, std::size_t size, std::size_t room),
                 (fd, data, size, room), EIO, EINTR)
FAILS_WITH_ERRNO(ssize_t, -1, writev, (int fd, const void* pieces, int count), (fd, pieces, count), ENOSPC,
                 EIO)
FAILS_WITH_ERRNO(ssize_t, -1, sendfile, (int to, int from, void* offset, std::size_t size),
                 (to, from, offset, size), ENOSPC, EIO)
FAILS_WITH_ERRNO(int, -1, fsync, (int fd), (fd), EIO, ENOSPC, EINTR)
FAILS_WITH_ERRNO(int, -1, rename, (const char* from, const char* to), (from, to), EACCES, ENOSPC, EIO)
FAILS_WITH_ERRNO(int, -1, renameat, (int fromDirectory, const char* from, int toDirectory, const char* to),
                 (fromDirectory, from, toDirectory, to), EACCES, ENOSPC, EIO)
FAILS_WITH_ERRNO(int, -1, renameat2,
                 (int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags),
                 (fromDirectory, from, toDirectory, to, flags), EACCES, ENOSPC, EINVAL)
FAILS_WITH_ERRNO(int, -1, unlink, (const char* path), (path), EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, unlinkat, (int directory, const char* path, int flags), (directory, path, flags),
                 EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, mkdir, (const char* path, mode_t mode), (path, mode), EACCES, ENOSPC)
FAILS_WITH_ERRNO(int, -1, mkdirat, (int directory, const char* path, mode_t mode), (directory, path, mode),
                 EACCES, ENOSPC)
FAILS_WITH_ERRNO(int, -1, chown, (const char* path, uid_t user, gid_t group), (path, user, group), EPERM)
FAILS_WITH_ERRNO(int, -1, lchown, (const char* path, uid_t user, gid_t group), (path, user, group), EPERM,
                 EIO)
FAILS_WITH_ERRNO(int, -1, fchown, (int fd, uid_t user, gid_t group), (fd, user, group), EPERM)
FAILS_WITH_ERRNO(int, -1, fchownat, (int directory, const char* path, uid_t user, gid_t group, int flags),
                 (directory, path, user, group, flags), EPERM, EIO)
FAILS_WITH_ERRNO(int, -1, fchmod, (int fd, mode_t mode), (fd, mode), EPERM, EIO)
FAILS_WITH_ERRNO(int, -1, flock, (int fd, int operation), (fd, operation), EWOULDBLOCK, ENOLCK, EINTR)
FAILS_WITH_ERRNO(int, -1, stat, (const char* path, void* result), (path, result), EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, lstat, (const char* path, void* result), (path, result), EACCES, EIO)
FAILS_WITH_ERRNO(int, -1, fstat, (int fd, void* result), (fd, result), EIO)
FAILS_WITH_ERRNO(int, -1, fstat64, (int fd, void* result), (fd, result), EIO)
FAILS_WITH_ERRNO(int, -1, fstatat, (int directory, const char* path, void* result, int flags),
                 (directory, path, result, flags), EACCES, EIO)
FAILS_WITH_ERRNO(char*, nullptr, realpath, (const char* path, char* result), (path, result), EACCES, ENOMEM)
FAILS_WITH_ERRNO(int, -1, statfs64, (const char* path, void* result), (path, result), EIO, EACCES)
FAILS_WITH_ERRNO(void*, nullptr, getpwnam, (const char* name), (name), EIO, EMFILE)
FAILS_WITH_ERRNO(int, -1, setenv, (const char* name, const char* value, int replaces),
                 (name, value, replaces), ENOMEM)
FAILS_WITH_ERRNO(int, -1, fork, (), (), EAGAIN, ENOMEM)

STANDS_FOR(ssize_t, write, (int fd, const void* data, std::size_t size)) {
    static constinit Point point{"write", {ENOSPC, EIO, EINTR, kPart}};
    const int failure = fd == STDERR_FILENO ? 0 : point.failure();
    if (failure == kPart && size > 1) {
        return NEXT(write)(fd, data, size / 2);
    }
    if (failure != 0 && failure != kPart) {
        errno = failure;
        return -1;
    }
    return NEXT(write)(fd, data, size);
}

// The descriptor is closed all the same, as Linux does it.
STANDS_FOR(int, close, (int fd)) {
    static constinit Point point{"close", {EIO, ENOSPC, EINTR}};
    const int error = point.failure();
    const int result = NEXT(close)(fd);
    if (error == 0) {
        return result;
    }
    errno = error;
    return -1;
}

STANDS_FOR(int, fcntl, (int fd, int command, ...)) {
    static constinit Point point{"fcntl", {EMFILE}};
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    const bool copies = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    if (const int error = copies ? point.failure() : 0; error != 0) {
        errno = error;
        return -1;
    }
    return NEXT(fcntl)(fd, command, argument);
}

// std::cout goes through here.
STANDS_FOR(std::size_t, fwrite, (const void* data, std::size_t size, std::size_t count, FILE* file)) {
    static constinit Point point{"fwrite", {ENOSPC}};
    if (const int error = file == stderr ? 0 : point.failure(); error != 0) {
        errno = error;
        return 0;
    }
    return NEXT(fwrite)(data, size, count, file);
}

#define READS_FROM_FILE(type, failed, symbol, parameters, arguments, file)        \
    STANDS_FOR(type, symbol, parameters) {                                        \
        static constinit Point point{#symbol, {EIO}};                             \
        if (const int error = point.failure(); error != 0) {                      \
            (file)->_flags |= _IO_ERR_SEEN; /* what ferror(3) and feof(3) tell */ \
            errno = error;                                                        \
            return failed;                                                        \
        }                                                                         \
        return NEXT(symbol) arguments;                                            \
    }

READS_FROM_FILE(ssize_t, -1, getline, (char** line, std::size_t* size, FILE* file), (line, size, file), file)
READS_FROM_FILE(ssize_t, -1, __getdelim, (char** line, std::size_t* size, int end, FILE* file),
                (line, size, end, file), file)
// std::cin comes from these.
READS_FROM_FILE(int, EOF, getc, (FILE * file), (file), file)
READS_FROM_FILE(std::size_t, 0, fread, (void* data, std::size_t size, std::size_t count, FILE* file),
                (data, size, count, file), file)

STANDS_FOR(int, fflush, (FILE * file)) {
    static constinit Point point{"fflush", {ENOSPC}};
    if (const int error = file == stderr ? 0 : point.failure(); error != 0) {
        errno = error;
        return EOF;
    }
    return NEXT(fflush)(file);
}

// ---- Network ----

FAILS_WITH_ERRNO(int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol), EMFILE,
                 ENOBUFS, EAFNOSUPPORT)
FAILS_WITH_ERRNO(int, -1, setsockopt, (int fd, int level, int option, const void* value, socklen_t size),
                 (fd, level, option, value, size), ENOPROTOOPT)
FAILS_WITH_ERRNO(int, -1, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
                 (fd, level, option, value, size), ENOBUFS)
FAILS_WITH_ERRNO(int, -1, poll, (pollfd * descriptors, nfds_t count, int timeout),
                 (descriptors, count, timeout), ENOMEM, EINTR)
FAILS_WITH_ERRNO(int, -1, __poll_chk, (pollfd * descriptors, nfds_t count, int timeout, std::size_t room),
                 (descriptors, count, timeout, room), ENOMEM, EINTR)
FAILS_WITH_ERRNO(int, -1, ppoll,
                 (pollfd * descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask),
                 (descriptors, count, timeout, mask), ENOMEM, EINTR)
FAILS_WITH_ERRNO(int, -1, __ppoll_chk,
                 (pollfd * descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask,
                  std::size_t room),
                 (descriptors, count, timeout, mask, room), ENOMEM, EINTR)

STANDS_FOR(int, connect, (int fd, const sockaddr* address, socklen_t size)) {
    static constinit Point point{
        "connect", {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EHOSTUNREACH, EACCES, ENOBUFS, kInterrupted}};
    const int failure = point.failure();
    if (failure != 0 && failure != kInterrupted) {
        errno = failure;
        return -1;
    }
    const int result = NEXT(connect)(fd, address, size);
    if (failure == 0) {
        return result;
    }
    errno = EINTR;
    return -1;
}

STANDS_FOR(int, getaddrinfo,
           (const char* node, const char* service, const addrinfo* hints, addrinfo** result)) {
    static constinit Point point{"getaddrinfo", {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_SYSTEM}};
    if (const int failure = point.failure(); failure != 0) {
        errno = EMFILE;
        return failure;
    }
    return NEXT(getaddrinfo)(node, service, hints, result);
}

STANDS_FOR(ssize_t, send, (int fd, const void* data, std::size_t size, int flags)) {
    static constinit Point point{"send", {ECONNRESET, EAGAIN, kPart}};
    const int failure = point.failure();
    if (failure == kPart && size > 1) {
        return NEXT(send)(fd, data, size / 2, flags);
    }
    if (failure == 0 || failure == kPart) {
        return NEXT(send)(fd, data, size, flags);
    }
    if (failure != EAGAIN) {
        cut(fd);
    }
    errno = failure;
    return -1;
}

namespace {

/// What recv(2) that has failed returns.
ssize_t endOfReceiving(int fd, int failure) {
    cut(fd);
    errno = failure;
    return failure == kEnd ? 0 : -1;
}

}  // namespace

STANDS_FOR(ssize_t, recv, (int fd, void* data, std::size_t size, int flags)) {
    static constinit Point point{"recv", {ECONNRESET, kEnd, kPart}};
    const int failure = point.failure();
    if (failure == kPart && size > 1) {
        return NEXT(recv)(fd, data, size / 2, flags);
    }
    return failure == 0 || failure == kPart ? NEXT(recv)(fd, data, size, flags) : endOfReceiving(fd, failure);
}

STANDS_FOR(ssize_t, __recv_chk, (int fd, void* data, std::size_t size, std::size_t room, int flags)) {
    static constinit Point point{"__recv_chk", {ECONNRESET, ETIMEDOUT, kEnd}};
    const int failure = point.failure();
    return failure == 0 ? NEXT(__recv_chk)(fd, data, size, room, flags) : endOfReceiving(fd, failure);
}

// ---- Time ----

STANDS_FOR(unsigned, alarm, (unsigned seconds)) {
    static constinit Point point{"alarm", {}};
    if (plan.tickMs == 0 || seconds == 0) {
        return NEXT(alarm)(seconds);
    }
    const itimerval timer{{0, 0}, {plan.tickMs / 1000, (plan.tickMs % 1000) * 1000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    return 0;
}

// ---- libssh2 ----

STANDS_FOR(int, libssh2_session_last_error, (LIBSSH2_SESSION * session, char** text, int* size, int copies)) {
    static constinit Point point{"libssh2_session_last_error", {}};
    if (forgedSshError == 0) {
        return NEXT(libssh2_session_last_error)(session, text, size, copies);
    }
    static char forged[] = "a call has failed on purpose";
    if (text != nullptr) {
        *text = copies != 0 ? ::strdup(forged) : forged;
    }
    if (size != nullptr) {
        *size = static_cast<int>(sizeof forged - 1);
    }
    return forgedSshError;
}

STANDS_FOR(int, libssh2_session_startup, (LIBSSH2_SESSION * session, int fd)) {
    static constinit Point point{"libssh2_session_startup",
                                 {LIBSSH2_ERROR_KEX_FAILURE, LIBSSH2_ERROR_BANNER_RECV, LIBSSH2_ERROR_ALLOC,
                                  LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_TIMEOUT}};
    sshSocket = fd;
    forgedSshError = 0;
    if (const int error = point.failure(); error != 0) {
        forgeSshError(error);
        return error;
    }
    return NEXT(libssh2_session_startup)(session, fd);
}

FAILS_WITH_SSH_NULL(LIBSSH2_SESSION*, libssh2_session_init_ex,
                    (void* allocates, void* frees, void* reallocates, void* abstract),
                    (allocates, frees, reallocates, abstract), LIBSSH2_ERROR_ALLOC)
FAILS_WITH_SSH_NULL(const char*, libssh2_session_methods, (LIBSSH2_SESSION * session, int kind),
                    (session, kind), LIBSSH2_ERROR_INVAL)
FAILS_WITH_SSH_NULL(char*, libssh2_userauth_list,
                    (LIBSSH2_SESSION * session, const char* login, unsigned size), (session, login, size),
                    LIBSSH2_ERROR_ALLOC, LIBSSH2_ERROR_SOCKET_DISCONNECT)

STANDS_FOR(LIBSSH2_CHANNEL*, libssh2_channel_open_ex,
           (LIBSSH2_SESSION * session, const char* type, unsigned typeSize, unsigned window, unsigned packet,
            const char* message, unsigned messageSize)) {
    static constinit Point point{"libssh2_channel_open_ex",
                                 {LIBSSH2_ERROR_ALLOC, LIBSSH2_ERROR_CHANNEL_FAILURE,
                                  LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_SOCKET_SEND}};
    static bool isHalfOpen = false;  // asked for, and not answered yet
    forgedSshError = 0;
    if (const int error = point.failure(); error != 0) {
        // libssh2 itself would free what it has of the channel. What is left of it here can be freed with the
        // session only if the connection is lost.
        forgeSshError(isHalfOpen ? LIBSSH2_ERROR_SOCKET_DISCONNECT : error);
        return nullptr;
    }
    LIBSSH2_CHANNEL* const channel =
        NEXT(libssh2_channel_open_ex)(session, type, typeSize, window, packet, message, messageSize);
    isHalfOpen = channel == nullptr && libssh2_session_last_errno(session) == LIBSSH2_ERROR_EAGAIN;
    return channel;
}

FAILS_WITH_SSH_ERROR(int, libssh2_session_method_pref,
                     (LIBSSH2_SESSION * session, int kind, const char* methods), (session, kind, methods),
                     LIBSSH2_ERROR_METHOD_NOT_SUPPORTED, LIBSSH2_ERROR_ALLOC)
FAILS_WITH_SSH_ERROR(int, libssh2_userauth_password_ex,
                     (LIBSSH2_SESSION * session, const char* login, unsigned loginSize, const char* password,
                      unsigned passwordSize, void* change),
                     (session, login, loginSize, password, passwordSize, change),
                     LIBSSH2_ERROR_AUTHENTICATION_FAILED, LIBSSH2_ERROR_ALLOC,
                     LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_TIMEOUT)
FAILS_WITH_SSH_ERROR(int, libssh2_userauth_keyboard_interactive_ex,
                     (LIBSSH2_SESSION * session, const char* login, unsigned size, void* answers),
                     (session, login, size, answers), LIBSSH2_ERROR_AUTHENTICATION_FAILED,
                     LIBSSH2_ERROR_ALLOC, LIBSSH2_ERROR_SOCKET_DISCONNECT)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_process_startup,
                     (LIBSSH2_CHANNEL * channel, const char* request, unsigned requestSize,
                      const char* message, unsigned messageSize),
                     (channel, request, requestSize, message, messageSize),
                     LIBSSH2_ERROR_CHANNEL_REQUEST_DENIED, LIBSSH2_ERROR_ALLOC, LIBSSH2_ERROR_SOCKET_SEND)
FAILS_WITH_SSH_ERROR(ssize_t, libssh2_channel_read_ex,
                     (LIBSSH2_CHANNEL * channel, int stream, char* data, std::size_t size),
                     (channel, stream, data, size), LIBSSH2_ERROR_SOCKET_RECV, LIBSSH2_ERROR_ALLOC,
                     LIBSSH2_ERROR_CHANNEL_CLOSED)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_receive_window_adjust2,
                     (LIBSSH2_CHANNEL * channel, unsigned long adjustment, unsigned char force,
                      unsigned* window),
                     (channel, adjustment, force, window), LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_ALLOC)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_send_eof, (LIBSSH2_CHANNEL * channel), (channel),
                     LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_CHANNEL_CLOSED)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_eof, (LIBSSH2_CHANNEL * channel), (channel), LIBSSH2_ERROR_BAD_USE)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_wait_closed, (LIBSSH2_CHANNEL * channel), (channel),
                     LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_INVAL)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_free, (LIBSSH2_CHANNEL * channel), (channel), LIBSSH2_ERROR_EAGAIN)
FAILS_WITH_SSH_ERROR(int, libssh2_poll_channel_read, (LIBSSH2_CHANNEL * channel, int extended),
                     (channel, extended), LIBSSH2_ERROR_BAD_USE)
FAILS_WITH_SSH_ERROR(int, libssh2_poll, (void* descriptors, unsigned count, long timeout),
                     (descriptors, count, timeout), -1)
FAILS_WITH_SSH_ERROR(int, libssh2_channel_get_exit_signal,
                     (LIBSSH2_CHANNEL * channel, char** name, std::size_t* nameSize, char** message,
                      std::size_t* messageSize, char** language, std::size_t* languageSize),
                     (channel, name, nameSize, message, messageSize, language, languageSize),
                     LIBSSH2_ERROR_ALLOC)

STANDS_FOR(ssize_t, libssh2_channel_write_ex,
           (LIBSSH2_CHANNEL * channel, int stream, const char* data, std::size_t size)) {
    static constinit Point point{"libssh2_channel_write_ex",
                                 {LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_CHANNEL_CLOSED,
                                  LIBSSH2_ERROR_ALLOC, LIBSSH2_ERROR_EAGAIN, kPart}};
    forgedSshError = 0;
    const int failure = point.failure();
    if (failure == kPart && size > 1) {
        return NEXT(libssh2_channel_write_ex)(channel, stream, data, size / 2);
    }
    if (failure != 0 && failure != kPart) {
        forgeSshError(failure);
        return failure;
    }
    return NEXT(libssh2_channel_write_ex)(channel, stream, data, size);
}

// The session is freed all the same: nobody asks twice.
STANDS_FOR(int, libssh2_session_free, (LIBSSH2_SESSION * session)) {
    static constinit Point point{"libssh2_session_free", {LIBSSH2_ERROR_EAGAIN}};
    const int failure = point.failure();
    const int result = NEXT(libssh2_session_free)(session);
    return failure != 0 ? failure : result;
}

// The remote command has done its work, and says that it has failed.
STANDS_FOR(int, libssh2_channel_get_exit_status, (LIBSSH2_CHANNEL * channel)) {
    static constinit Point point{"libssh2_channel_get_exit_status", {1, 255}};
    const int failure = point.failure();
    return failure != 0 ? failure : NEXT(libssh2_channel_get_exit_status)(channel);
}

// ---- libxml2 and libcrypto, as the program itself calls them ----

FAILS_FOR_PROGRAM(void*, nullptr, xmlNewDoc, (const void* version), (version))
FAILS_FOR_PROGRAM(void*, nullptr, xmlNewDocNode,
                  (void* document, void* space, const void* name, const void* content),
                  (document, space, name, content))
FAILS_FOR_PROGRAM(void*, nullptr, xmlNewTextChild,
                  (void* parent, void* space, const void* name, const void* content),
                  (parent, space, name, content))
FAILS_FOR_PROGRAM(void*, nullptr, xmlNewCDataBlock, (void* document, const void* content, int size),
                  (document, content, size))
FAILS_FOR_PROGRAM(void*, nullptr, xmlNewDocText, (const void* document, const void* content),
                  (document, content))
FAILS_FOR_PROGRAM(void*, nullptr, xmlAddChild, (void* parent, void* child), (parent, child))
FAILS_FOR_PROGRAM(void*, nullptr, xmlSetProp, (void* node, const void* name, const void* value),
                  (node, name, value))
FAILS_FOR_PROGRAM(void*, nullptr, xmlOutputBufferCreateIO,
                  (void* writes, void* closes, void* context, void* encoder),
                  (writes, closes, context, encoder))
FAILS_FOR_PROGRAM(void*, nullptr, xmlNewParserCtxt, (), ())
FAILS_FOR_PROGRAM(void*, nullptr, xmlCtxtReadIO,
                  (void* context, int (*reads)(void*, char*, int), int (*closes)(void*), void* input,
                   const char* url, const char* encoding, int options),
                  (context, reads, closes, input, url, encoding, options))
FAILS_FOR_PROGRAM(void*, nullptr, xmlCtxtReadFd,
                  (void* context, int fd, const char* url, const char* encoding, int options),
                  (context, fd, url, encoding, options))
FAILS_FOR_PROGRAM(void*, nullptr, xmlXPathNewContext, (void* document), (document))
FAILS_FOR_PROGRAM(void*, nullptr, xmlXPathNewParserContext, (const void* expression, void* context),
                  (expression, context))

FAILS_FOR_PROGRAM(char*, nullptr, xmlXPathCastToString, (void* object), (object))
FAILS_FOR_PROGRAM(void*, nullptr, xmlFindCharEncodingHandler, (const char* name), (name))

// The buffer is used up all the same.
STANDS_FOR(int, xmlSaveFileTo, (void* buffer, void* document, const char* encoding)) {
    static constinit Point point{"xmlSaveFileTo", {ENOMEM}};
    const bool fails = isInProgram(__builtin_return_address(0)) && point.failure() != 0;
    return NEXT(xmlSaveFileTo)(buffer, fails ? nullptr : document, encoding);
}

FAILS_FOR_PROGRAM(void*, nullptr, EVP_MD_CTX_new, (), ())
FAILS_FOR_PROGRAM(int, 0, EVP_DigestInit_ex, (void* context, const void* kind, void* engine),
                  (context, kind, engine))
FAILS_FOR_PROGRAM(int, 0, EVP_DigestUpdate, (void* context, const void* data, std::size_t size),
                  (context, data, size))
FAILS_FOR_PROGRAM(int, 0, EVP_DigestFinal_ex, (void* context, void* digest, unsigned* size),
                  (context, digest, size))
