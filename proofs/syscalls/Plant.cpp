// Preloaded to a program, makes one of its system calls fail, or transfer a single byte, as the
// driver says in a page of memory that both map. The kernel traps the calls of which
// KIROWEB_PLANT_CALLS has the numbers, wherever in the process they are made: what the C library
// does by itself (a buffered stream's write) is met as well. KIROWEB_PLANT_FILE names the page.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/audit.h>
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
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

constexpr int kCalls = 512;
/// Stands for pthread_create: around its own call the C library blocks each signal, also a trap's.
constexpr int kThread = kCalls - 1;
constexpr int kShort = -1;  ///< in place of an error

/// Read and written by the driver too, which has the same table.
struct Plan {
    std::atomic<std::int32_t> call;        ///< -1: none
    std::atomic<std::int32_t> error;       ///< or kShort
    std::atomic<std::int32_t> descriptor;  ///< the only one that counts; -1: each counts
    std::atomic<std::int32_t> first;       ///< that fails, counted from 1 as `matched` counts
    std::atomic<std::int32_t> last;
    std::atomic<std::int32_t> matched;
    std::atomic<std::int32_t> planted;
    std::atomic<std::int32_t> where;  ///< the descriptor, or first argument, of the latest
    std::array<std::atomic<std::uint32_t>, kCalls> seen;
};

Plan* plan = nullptr;

using Arguments = std::array<long, 6>;

}  // namespace

extern "C" const char kirowebPlantReturn[];

namespace {

/// The only place from where a trapped call gets through.
[[gnu::noinline, gnu::noclone]] long carryOut(long call, const Arguments& with) {
    long result = 0;
    register long r10 asm("r10") = with[3];
    register long r8 asm("r8") = with[4];
    register long r9 asm("r9") = with[5];
    asm volatile(
        "syscall\n"
        ".globl kirowebPlantReturn\n.hidden kirowebPlantReturn\nkirowebPlantReturn:"
        : "=a"(result)
        : "a"(call), "D"(with[0]), "S"(with[1]), "d"(with[2]), "r"(r10), "r"(r8), "r"(r9)
        : "rcx", "r11", "memory");
    return result;
}

/// Where the number of bytes stands; 0: in a msghdr; -1: it has none.
int sizeAt(long call) {
    switch (call) {
        case SYS_read:
        case SYS_write:
        case SYS_pread64:
        case SYS_sendto:
        case SYS_recvfrom:
            return 2;
        case SYS_getrandom:
            return 1;
        case SYS_sendmsg:
        case SYS_recvmsg:
            return 0;
        default:
            return -1;
    }
}

/// Whether this call is the one, or one of those.
bool isIt(long call, const Arguments& with) {
    ++plan->seen[static_cast<std::size_t>(call)];
    if (plan->call != call) return false;
    if (plan->descriptor >= 0 && plan->descriptor != with[0]) return false;
    // Events are not told in parts.
    const int at = sizeAt(call);
    if (plan->error == kShort && at > 0 && with[static_cast<std::size_t>(at)] <= 8) return false;
    const auto count = ++plan->matched;
    if (count < plan->first || count > plan->last) return false;
    plan->where = static_cast<std::int32_t>(with[0]);
    ++plan->planted;
    return true;
}

long carryOutShort(long call, Arguments with) {
    const int at = sizeAt(call);
    if (at > 0) {
        with[static_cast<std::size_t>(at)] = 1;
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

void onTrap(int /*signal*/, siginfo_t* info, void* context) {
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const long call = info->si_syscall;
    const Arguments with{registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                         registers[REG_R10], registers[REG_R8],  registers[REG_R9]};
    long result = 0;
    if (!isIt(call, with)) {
        result = carryOut(call, with);
    } else if (plan->error == kShort) {
        result = carryOutShort(call, with);
    } else {
        // A descriptor is gone whatever closing it answers.
        if (call == SYS_close) carryOut(call, with);
        result = -plan->error;
    }
    registers[REG_RAX] = result;
}

void trap(const std::vector<std::uint32_t>& calls) {
    const auto from = reinterpret_cast<std::uint64_t>(kirowebPlantReturn);
    constexpr auto kAddress = offsetof(seccomp_data, instruction_pointer);
    const auto load = [](std::size_t at) {
        return sock_filter(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(at)));
    };
    const auto skipUnless = [](std::uint64_t value, int lines) {
        return sock_filter(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(value), 0,
                                    static_cast<std::uint8_t>(lines)));
    };
    const sock_filter pass BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_filter stop BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP);
    std::vector<sock_filter> filter{load(kAddress),
                                    skipUnless(from & 0xffffffffU, 3),
                                    load(kAddress + 4),
                                    skipUnless(from >> 32U, 1),
                                    pass,
                                    load(offsetof(seccomp_data, nr))};
    for (const auto call : calls) {
        filter.push_back(skipUnless(call, 1));
        filter.push_back(stop);
    }
    filter.push_back(pass);
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::_Exit(77);
    }
}

/// The function of this name in the C library.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

[[gnu::constructor]] void begin() {
    const char* const file = std::getenv("KIROWEB_PLANT_FILE");
    const char* numbers = std::getenv("KIROWEB_PLANT_CALLS");
    if (file == nullptr || numbers == nullptr) return;
    const int descriptor = ::open(file, O_RDWR | O_CLOEXEC);
    void* const page =
        ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    ::close(descriptor);
    if (page == MAP_FAILED) std::_Exit(77);
    plan = static_cast<Plan*>(page);
    std::vector<std::uint32_t> calls;
    for (char* end = nullptr; *numbers != '\0'; numbers = *end == ',' ? end + 1 : end) {
        calls.push_back(static_cast<std::uint32_t>(std::strtoul(numbers, &end, 10)));
    }
    struct sigaction action {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    ::sigaction(SIGSYS, &action, nullptr);
    trap(calls);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* options,
                                                             void* (*function)(void*),
                                                             void* argument) noexcept {
    static auto* const create = next<decltype(pthread_create)>("pthread_create");
    if (plan != nullptr && isIt(kThread, {-1})) return plan->error;
    return create(thread, options, function, argument);
}

/// No handler may block the trap.
extern "C" [[gnu::visibility("default")]] int sigaction(int signal, const struct sigaction* now,
                                                        struct sigaction* before) noexcept {
    static auto* const set =
        next<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
    if (now == nullptr) return set(signal, now, before);
    auto changed = *now;
    ::sigdelset(&changed.sa_mask, SIGSYS);
    return set(signal, &changed, before);
}
