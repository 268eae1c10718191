#include "Wakeup.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace kirogateway {
namespace {

int makeEvent() {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return descriptor;
}

}  // namespace

Wakeup::Wakeup() : fDescriptor(makeEvent()) {}

Wakeup::~Wakeup() {
    close();
    ::close(fDescriptor);
}

void Wakeup::close() noexcept {
    {
        annotated::Lock lock(fMutex);
        fIsClosed = true;
    }
    while (pop() != nullptr) {
    }
}

void Wakeup::ring() const noexcept {
    const std::uint64_t one = 1;
    // It can only fail when it was rung 2^64 - 1 times before.
    [[maybe_unused]] const auto written = ::write(fDescriptor, &one, sizeof one);
}

void Wakeup::push(std::shared_ptr<Target> target) noexcept {
    bool isFirst = false;
    {
        annotated::Lock lock(fMutex);
        if (fIsClosed) return;
        auto* added = target.get();
        isFirst = fFirst == nullptr;
        (isFirst ? fFirst : fLast->fNext) = added;
        fLast = added;
        added->fSelf = std::move(target);
    }
    if (isFirst) ring();
}

std::shared_ptr<Wakeup::Target> Wakeup::pop() noexcept {
    annotated::Lock lock(fMutex);
    if (fFirst == nullptr) return nullptr;
    auto target = std::move(fFirst->fSelf);
    fFirst = std::exchange(target->fNext, nullptr);
    return target;
}

void Wakeup::serveAll() noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = ::read(fDescriptor, &count, sizeof count);
    while (const auto target = pop()) target->serve(target->fRequested.exchange(0));
}

}  // namespace kirogateway
