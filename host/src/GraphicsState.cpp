#include "graphics_state/GraphicsState.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "annotated/Mutex.hpp"
#include "graphics_state/webSwitches.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace {

/// A function that may be empty, replaced and called on any thread. It is called without a lock,
/// and an empty one costs a load.
template <typename Result>
class Hook {
  public:
    using Function = std::function<Result()>;

    void set(Function function) {
        auto shared = std::make_shared<const Function>(std::move(function));
        const annotated::Lock lock(fMutex);
        fIsSet = static_cast<bool>(*shared);
        fFunction.swap(shared);
    }

    /// The function, null when it is empty.
    [[nodiscard]] std::shared_ptr<const Function> get() const {
        if (!fIsSet) return nullptr;
        const annotated::Lock lock(fMutex);
        return *fFunction ? fFunction : nullptr;
    }

  private:
    std::atomic<bool> fIsSet = false;
    mutable annotated::Mutex fMutex;
    std::shared_ptr<const Function> fFunction GUARDED_BY(fMutex) =
        std::make_shared<const Function>();
};

/// The settings, each read by itself: a reader may see an old one beside a new one.
struct Store {
    static Store& instance() {
        static Immortal<Store> immortal;
        return *immortal;
    }

    std::atomic<bool> binaryChannelForCommands;
    std::atomic<bool> binaryChannelFallback;
    std::atomic<bool> warnAboutFallback;
    std::atomic<std::int64_t> drawnowTimeoutSeconds;
    std::atomic<bool> drawnowTimeoutLogging;
    std::atomic<bool> atOstrel;
    Hook<void> drawnowTimeoutCallback;
    Hook<bool> answerWarnAboutFallback;

    Store() { set({}); }
    void set(kirohost::Settings settings);
    [[nodiscard]] kirohost::Settings get() const;
};

void Store::set(kirohost::Settings settings) {
    binaryChannelForCommands = settings.binaryChannelForCommands;
    binaryChannelFallback = settings.binaryChannelFallback;
    warnAboutFallback = settings.warnAboutFallback;
    drawnowTimeoutSeconds = settings.drawnowTimeoutSeconds;
    drawnowTimeoutLogging = settings.drawnowTimeoutLogging;
    atOstrel = settings.atOstrel;
    drawnowTimeoutCallback.set(std::move(settings.drawnowTimeoutCallback));
    answerWarnAboutFallback.set(std::move(settings.answerWarnAboutFallback));
}

kirohost::Settings Store::get() const {
    kirohost::Settings settings{binaryChannelForCommands,
                                binaryChannelFallback,
                                warnAboutFallback,
                                drawnowTimeoutSeconds,
                                drawnowTimeoutLogging,
                                atOstrel,
                                nullptr,
                                nullptr};
    if (const auto hook = drawnowTimeoutCallback.get()) settings.drawnowTimeoutCallback = *hook;
    if (const auto hook = answerWarnAboutFallback.get()) settings.answerWarnAboutFallback = *hook;
    return settings;
}

}  // namespace

namespace kirohost {

Settings settings() { return Store::instance().get(); }

void setSettings(Settings settings) { Store::instance().set(std::move(settings)); }

}  // namespace kirohost

std::int64_t GraphicsState::kiroGetDrawnowTimeout() {
    return Store::instance().drawnowTimeoutSeconds;
}

bool GraphicsState::kiroIsDrawnowTimeoutLoggingEnabled() {
    return Store::instance().drawnowTimeoutLogging;
}

bool GraphicsState::isAtOstrel() { return Store::instance().atOstrel; }

void GraphicsState::kiroInvokeDrawnowTimeoutCallback() {
    if (const auto hook = Store::instance().drawnowTimeoutCallback.get()) (*hook)();
}

namespace kiro::web {

bool usingBinaryChannelForCommands() { return Store::instance().binaryChannelForCommands; }

bool usingBinaryChannelFallback() { return Store::instance().binaryChannelFallback; }

bool warnAboutBinaryChannelFallback() {
    if (const auto answer = Store::instance().answerWarnAboutFallback.get()) return (*answer)();
    return Store::instance().warnAboutFallback;
}

}  // namespace kiro::web
