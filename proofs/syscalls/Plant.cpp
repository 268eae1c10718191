// Preloaded to a program, makes one of its system calls fail, or transfer a single byte, as the
// driver says in a page of memory that both map (KIROWEB_PLANT_FILE). The kernel traps the calls of
// which KIROWEB_PLANT_CALLS has the numbers wherever in the process they are made: what the C
// library does by itself, such as a buffered stream's write, is met as well.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" const char kirowebPlantReturn[];

namespace {

constexpr std::size_t kCalls = 512;
/// Stands for pthread_create: around its own call the C library blocks each signal, also a trap's.
constexpr long kThread = kCalls - 1;
constexpr int kShort = -1;  ///< in place of an error
constexpr int kNoSize = -1;
constexpr int kInMessage = 0;

using Number = std::atomic<std::int32_t>;

/// The driver has the same table.
struct Plan {
    Number call;         ///< -1: none
    Number error;        ///< or kShort
    Number size;         ///< which argument has the number of bytes, or kNoSize or kInMessage
    Number descriptor;   ///< the only one that counts; -1: each counts
    Number first, last;  ///< that fail, counted from 1
    Number matched, planted;
    Number where;  ///< the first argument of the latest
    std::array<Number, kCalls> seen;
};

Plan* plan = nullptr;

using Arguments = std::array<long, 6>;

/// The only place from where a trapped call gets through.
[[gnu::noinline, gnu::noclone]] long carryOut(long call, const Arguments& with) {
    long result = 0;
    register long r10 asm("r10") = with[3];
    register long r8 asm("r8") = with[4];
    register long r9 asm("r9") = with[5];
    asm volatile(
        "syscall\n.globl kirowebPlantReturn\n.hidden kirowebPlantReturn\nkirowebPlantReturn:"
        : "=a"(result)
        : "a"(call), "D"(with[0]), "S"(with[1]), "d"(with[2]), "r"(r10), "r"(r8), "r"(r9)
        : "rcx", "r11", "memory");
    return result;
}

/// Signals to oneself, through an eventfd or a pipe, and the flags of a descriptor cannot fail.
bool canFail(long call, const Arguments& with) {
    if (call == SYS_read || call == SYS_write) return with[2] > 8;
    return call != SYS_fcntl || with[1] == F_DUPFD_CLOEXEC;
}

bool isIt(long call, const Arguments& with) {
    if (!canFail(call, with)) return false;
    ++plan->seen.at(static_cast<std::size_t>(call));
    if (plan->call != call) return false;
    if (plan->descriptor >= 0 && plan->descriptor != with[0]) return false;
    const auto count = ++plan->matched;
    if (count < plan->first || count > plan->last) return false;
    plan->where = static_cast<std::int32_t>(with[0]);
    ++plan->planted;
    return true;
}

long carryOutShort(long call, Arguments with) {
    if (plan->size != kInMessage) {
        with.at(static_cast<std::size_t>(plan->size)) = 1;
        return carryOut(call, with);
    }
    auto message = *reinterpret_cast<const msghdr*>(with[1]);
    iovec one{};
    for (std::size_t i = message.msg_iovlen; i-- > 0;) {
        if (message.msg_iov[i].iov_len > 0) one = {message.msg_iov[i].iov_base, 1};
    }
    message.msg_iov = &one;
    message.msg_iovlen = 1;
    with[1] = reinterpret_cast<long>(&message);
    return carryOut(call, with);
}

long fail(long call, const Arguments& with) {
    // Whatever these answer, the descriptor is gone, the socket shut.
    if (call == SYS_close || call == SYS_shutdown) carryOut(call, with);
    return -plan->error;
}

void onTrap(int /*signal*/, siginfo_t* info, void* context) {
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const long call = info->si_syscall;
    const Arguments with{registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                         registers[REG_R10], registers[REG_R8],  registers[REG_R9]};
    registers[REG_RAX] = !isIt(call, with)       ? carryOut(call, with)
                         : plan->error == kShort ? carryOutShort(call, with)
                                                 : fail(call, with);
}

sock_filter load(std::size_t at) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(at));
}

sock_filter skipUnless(std::uint64_t value, std::uint8_t lines) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(value), 0, lines);
}

/// From now on, and for good. `numbers` are separated by commas.
bool trap(const char* numbers) {
    const auto from = reinterpret_cast<std::uint64_t>(kirowebPlantReturn);
    constexpr auto kAddress = offsetof(seccomp_data, instruction_pointer);
    const sock_filter pass = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_filter stop = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP);
    std::vector<sock_filter> filter{load(kAddress),
                                    skipUnless(from & 0xffffffffU, 3),
                                    load(kAddress + 4),
                                    skipUnless(from >> 32U, 1),
                                    pass,
                                    load(offsetof(seccomp_data, nr))};
    for (char* end = nullptr; *numbers != '\0'; numbers = *end == ',' ? end + 1 : end) {
        filter.push_back(skipUnless(std::strtoul(numbers, &end, 10), 1));
        filter.push_back(stop);
    }
    filter.push_back(pass);
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

[[gnu::constructor]] void begin() {
    constexpr int kCannot = 77;
    const int file = ::open(std::getenv("KIROWEB_PLANT_FILE"), O_RDWR | O_CLOEXEC);
    void* const page = ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (page == MAP_FAILED) std::_Exit(kCannot);
    ::close(file);
    plan = static_cast<Plan*>(page);
    struct sigaction action {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    ::sigaction(SIGSYS, &action, nullptr);
    if (!trap(std::getenv("KIROWEB_PLANT_CALLS"))) std::_Exit(kCannot);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* options,
                                                             void* (*function)(void*),
                                                             void* argument) noexcept {
    static auto* const create =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return isIt(kThread, {-1}) ? plan->error.load() : create(thread, options, function, argument);
}
