#include "engine/ErrorWatch.hpp"

#include <atomic>
#include <utility>

#include "Contract.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace monitor::engine {

struct ErrorWatch::State {
    std::atomic<std::uint64_t> count = 0;
    std::function<void(const std::string&)> told;
};

ErrorWatch::ErrorWatch(std::function<void(const std::string&)> told)
    : fState(std::make_shared<State>()) {
    fState->told = std::move(told);
    fSubscriber = kiro::web::subscribe(
        kiro::web::PubSubFactory::pubsubInstance(), contract::kErrorChannel,
        [state = fState](const std::string&, const kiro::web::PayloadInterface& error) {
            ++state->count;
            if (state->told) state->told(error.convertToString());
        });
}

ErrorWatch::~ErrorWatch() = default;

std::uint64_t ErrorWatch::count() const { return fState->count; }

}  // namespace monitor::engine
