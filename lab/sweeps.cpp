// Sweeps: exchanges in which one allocation, or one call of the system, fails: the first, the second and so
// on to the last. Whatever fails, the exchange must end in one callback or `POST` must throw
// `std::bad_alloc`, the next exchange must succeed, and no more memory and descriptors may be in use than
// without a failure.
//
//     zembra-lab-sweeps allocations|calls [<first position> [<step>]]
//
// Loopback only, some minutes. The process that sweeps has the server's address and its authority's PEM text
// as arguments, too. It puts its own versions of the C library's functions in place.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <new>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ZembraPlatform/MainQueue.h>

#include "Children.h"
#include "support/POSTResult.h"

// What fails
// -------------------------------------------------------------------------------------------------------

namespace {

enum class Sweep { none, allocations, calls };

std::atomic<Sweep> sweep = Sweep::none;
std::atomic<long> remaining = 0;  // until the one that fails
std::atomic<long> liveBlocks = 0;
std::atomic<const char*> failed = "nothing";

bool fails(Sweep kind, const char* name) noexcept {
    if (sweep != kind || --remaining != 0) return false;
    failed = name;
    return true;
}

/// The C library's function of that name, unless this call is the one that fails.
template <auto* kOwn, class... Arguments>
auto attempt(const char* name, int error, Arguments... arguments) {
    static const auto next = reinterpret_cast<decltype(kOwn)>(::dlsym(RTLD_NEXT, name));
    using Result = decltype(next(arguments...));
    if (!fails(Sweep::calls, name)) return next(arguments...);
    errno = error;
    if constexpr (std::is_pointer_v<Result>)
        return Result{};
    else
        return Result{-1};
}

void* counted(void* block) noexcept {
    if (block) ++liveBlocks;
    return block;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
    if (!fails(Sweep::allocations, "malloc")) return counted(__libc_malloc(size));
    errno = ENOMEM;
    return nullptr;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    if (!fails(Sweep::allocations, "calloc")) return counted(__libc_calloc(count, size));
    errno = ENOMEM;
    return nullptr;
}

void* realloc(void* block, std::size_t size) noexcept {
    if (!fails(Sweep::allocations, "realloc"))
        return block ? __libc_realloc(block, size) : counted(__libc_realloc(block, size));
    errno = ENOMEM;
    return nullptr;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    if (!fails(Sweep::allocations, "aligned_alloc")) return counted(__libc_memalign(alignment, size));
    errno = ENOMEM;
    return nullptr;
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    *block = ::aligned_alloc(alignment, size);
    return *block ? 0 : ENOMEM;
}

void free(void* block) noexcept {
    if (block) --liveBlocks;
    __libc_free(block);
}

int socket(int domain, int type, int protocol) noexcept {
    return attempt<&::socket>("socket", EMFILE, domain, type, protocol);
}
int socketpair(int domain, int type, int protocol, int pair[2]) noexcept {
    return attempt<&::socketpair>("socketpair", EMFILE, domain, type, protocol, pair);
}
int connect(int descriptor, const sockaddr* address, socklen_t size) {
    return attempt<&::connect>("connect", ENOBUFS, descriptor, address, size);
}
int getsockopt(int descriptor, int level, int name, void* value, socklen_t* size) noexcept {
    return attempt<&::getsockopt>("getsockopt", ENOBUFS, descriptor, level, name, value, size);
}
int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) noexcept {
    return attempt<&::setsockopt>("setsockopt", ENOBUFS, descriptor, level, name, value, size);
}
int getsockname(int descriptor, sockaddr* address, socklen_t* size) noexcept {
    return attempt<&::getsockname>("getsockname", ENOBUFS, descriptor, address, size);
}
int getpeername(int descriptor, sockaddr* address, socklen_t* size) noexcept {
    return attempt<&::getpeername>("getpeername", ENOBUFS, descriptor, address, size);
}
ssize_t recv(int descriptor, void* buffer, std::size_t size, int flags) {
    return attempt<&::recv>("recv", ECONNRESET, descriptor, buffer, size, flags);
}
ssize_t send(int descriptor, const void* buffer, std::size_t size, int flags) {
    return attempt<&::send>("send", ECONNRESET, descriptor, buffer, size, flags);
}
ssize_t read(int descriptor, void* buffer, std::size_t size) {
    return attempt<&::read>("read", EIO, descriptor, buffer, size);
}
ssize_t write(int descriptor, const void* buffer, std::size_t size) {
    return attempt<&::write>("write", EIO, descriptor, buffer, size);
}
int poll(pollfd* descriptors, nfds_t count, int timeout) {
    return attempt<&::poll>("poll", EINTR, descriptors, count, timeout);
}
int eventfd(unsigned value, int flags) noexcept {
    return attempt<&::eventfd>("eventfd", EMFILE, value, flags);
}
int open(const char* path, int flags, ...) {
    std::va_list more;
    va_start(more, flags);
    const auto mode = va_arg(more, mode_t);
    va_end(more);
    return attempt<&::open>("open", EMFILE, path, flags, mode);
}
int fcntl64(int descriptor, int command, ...) {
    std::va_list more;
    va_start(more, command);
    void* const argument = va_arg(more, void*);
    va_end(more);
    return attempt<&::fcntl64>("fcntl64", EBADF, descriptor, command, argument);
}
FILE* fopen64(const char* path, const char* mode) {
    return attempt<&::fopen64>("fopen64", EMFILE, path, mode);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    const int result =
        attempt<&::pthread_create>("pthread_create", EAGAIN, thread, attributes, start, argument);
    return result == -1 ? EAGAIN : result;
}

}  // extern "C"
#pragma GCC visibility pop

// The exchanges
// -------------------------------------------------------------------------------------------------------

using namespace zembra;
using namespace std::chrono_literals;

namespace {

/// How a child ends, as its exit status.
enum Verdict : int {
    kRight,
    kCallbacks,
    kNextFails,
    kMemory,
    kDescriptors,
    kTerminate,
    kTerminateOnIOThread
};
constexpr const char* kMeanings[] = {"",
                                     "no callback, or more than one",
                                     "the next exchange fails, too",
                                     "memory is lost",
                                     "descriptors are lost",
                                     "std::terminate",
                                     "std::terminate on the I/O thread"};

/// What a child tells the process that sweeps, in shared memory.
struct Report {
    long passed;  // positions
    long liveBlocks;
    long descriptors;
    char failed[32];
};

long descriptorCount() {
    const int next = ::dup(0);  // the lowest number that is free
    ::close(next);
    return next;
}

std::unique_ptr<AFHTTPSessionManager> newClient(char** arguments) {
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(arguments[0]));
    client->addTrustedCertificateAuthority(arguments[1]);
    return client;
}

[[noreturn]] void onTerminate() {
    char name[16] = "";
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    std::_Exit(name == std::string_view("zembra-http") ? kTerminateOnIOThread : kTerminate);
}

/// An exchange with a failure, and one without.
Verdict exchange(Sweep kind, long position, char** arguments, Report& report) {
    std::set_terminate(onTerminate);
    const long inherited = liveBlocks;
    int callbacks = 0;
    bool hasThrown = false;
    remaining = position;
    sweep = kind;
    try {
        const auto client = newClient(arguments);
        const auto note = [&](auto&&...) { ++callbacks; };
        client->POST("token", Value::dictionary({{"name", "value"}}), nullptr, note, note);
        [[maybe_unused]] const bool came = MainQueue::shared().runUntil([&] { return callbacks > 0; }, 5s);
    } catch (const std::bad_alloc&) {
        hasThrown = true;
    }
    sweep = Sweep::none;
    report.passed = position - remaining;
    std::snprintf(report.failed, sizeof report.failed, "%s", failed.load());
    MainQueue::shared().drain();
    if (callbacks != (hasThrown ? 0 : 1)) return kCallbacks;
    if (!test::performPOST(*newClient(arguments)).isSuccess()) return kNextFails;
    const Report expected = report;  // as the child without a failure left it
    report.liveBlocks = liveBlocks - inherited;
    report.descriptors = descriptorCount();
    if (expected.descriptors == 0) return kRight;
    if (report.liveBlocks > expected.liveBlocks) return kMemory;
    return report.descriptors > expected.descriptors ? kDescriptors : kRight;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 2) return 2;
    if (count < 6)
        return lab::runBesideServer(
            {arguments[0], arguments[1], count > 2 ? arguments[2] : "1", count > 3 ? arguments[3] : "1"},
            test::answering("{\"name\":[1,2,3]}"));
    const Sweep kind = arguments[1] == std::string_view("calls") ? Sweep::calls : Sweep::allocations;
    auto& report = *static_cast<Report*>(
        ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto runChild = [&](long position) {
        const pid_t child = ::fork();
        if (child == -1) std::abort();
        if (child == 0) std::_Exit(exchange(kind, position, arguments + 4, report));
        return lab::await(child);
    };

    constexpr long kNever = std::numeric_limits<long>::max();
    if (!runChild(kNever).isClean()) return 1;
    const Report whole = report;
    std::cout << whole.passed << " positions" << std::endl;
    lab::Tally tally;
    for (long position = std::stol(arguments[2]); position <= whole.passed;
         position += std::stol(arguments[3])) {
        report = whole;
        report.failed[0] = '\0';
        const lab::Ending ending = runChild(position);
        const int verdict = ending.isHang || WIFSIGNALED(ending.status) ? 0 : WEXITSTATUS(ending.status);
        tally.add(arguments[1],
                  "position " + std::to_string(position) + ", " + report.failed + ": " + kMeanings[verdict],
                  ending);
    }
    return tally.print();
}
