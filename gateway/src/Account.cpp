#include "Account.hpp"

#include <array>
#include <utility>

#include "ViewRegistry.hpp"
#include "process/Immortal.hpp"

namespace kirogateway {
namespace {

/// The views for which most is held, the first of them first. So many are found in one look, since
/// there may be thousands that hold little each.
class Largest {
  public:
    void add(const std::shared_ptr<View>& view) noexcept {
        const auto held = view->heldBytes();
        if (held <= fAll.back().held) return;
        auto at = std::prev(fAll.end());
        for (*at = {held, view}; at != fAll.begin() && std::prev(at)->held < held; --at) {
            std::swap(*at, *std::prev(at));
        }
    }
    /// Ends them in turn, as long as `isNeeded`. Returns whether there was one.
    template <typename IsNeeded>
    bool end(const IsNeeded& isNeeded) noexcept {
        for (const auto& [held, view] : fAll) {
            if (view != nullptr && isNeeded()) view->fail(View::kMemoryUsedUp);
        }
        return fAll.front().view != nullptr;
    }

  private:
    struct Found {
        std::size_t held = 0;
        std::shared_ptr<View> view;
    };
    std::array<Found, 32> fAll;
};

}  // namespace

std::shared_ptr<Account> Account::ofProcess() {
    // What was published may be held by the host when the last gateway has gone.
    static Immortal<std::shared_ptr<Account>> account(std::make_shared<Account>());
    return *account;
}

Account::Holder::Holder(std::shared_ptr<Account> account, const ViewRegistry& views)
    : fAccount(std::move(account)), fViews(views) {
    annotated::Lock lock(fAccount->fMutex);
    fAccount->fHolders.push_back(&fViews);
}

Account::Holder::~Holder() {
    annotated::Lock lock(fAccount->fMutex);
    std::erase(fAccount->fHolders, &fViews);
}

std::shared_ptr<const SharedText> Account::lastText() const noexcept {
    annotated::Lock lock(fTextMutex);
    return fLastText.lock();
}

void Account::noteText(const std::shared_ptr<const SharedText>& text) noexcept {
    annotated::Lock lock(fTextMutex);
    fLastText = text;
}

bool Account::makeRoom(std::size_t bytes, std::size_t limit) noexcept {
    if (bytes > limit) return false;
    const auto isNeeded = [&] { return !hasRoomFor(bytes, limit); };
    annotated::Lock lock(fMutex);
    while (isNeeded()) {
        Largest largest;
        for (const auto* holder : fHolders) {
            const auto all = holder->views();  // kept while it is gone through
            for (const auto& view : *all) largest.add(view);
        }
        if (!largest.end(isNeeded)) return false;
    }
    return true;
}

}  // namespace kirogateway
