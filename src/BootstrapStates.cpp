#include <utility>

#include "BootstrappingStateMachine.hpp"
#include "process/Thread.hpp"

namespace kiro::web {

using StateMachine = BootstrappingCommandSender::Impl::StateMachine;

StateMachine::BootstrapState::~BootstrapState() = default;

bool StateMachine::BootstrapState::isPublishState() const { return true; }

// --- Queueing ----------------------------------------------------------------------------------

std::future<void> StateMachine::QueueState::asyncExecute(std::shared_ptr<PayloadSenderTask> task,
                                                         BootstrapState*& nextState, Sender& sender,
                                                         std::string& channel) {
    nextState = execute(std::move(task), sender, channel);
    return {};
}

StateMachine::BootstrapState* StateMachine::QueueState::execute(
    std::shared_ptr<PayloadSenderTask> task, Sender& /*sender*/, std::string& /*channel*/) {
    fQueue.push_back(std::move(task));
    return this;
}

StateMachine::BootstrapState* StateMachine::QueueState::channelReady(ChannelInfo info,
                                                                     Sender& sender,
                                                                     const std::string& channel) {
    auto next = std::make_unique<PublishQueueState>(info);
    next->start(fQueue, sender, channel);
    return next.release();
}

const char* StateMachine::QueueState::stateName() const { return "QueueState"; }

bool StateMachine::QueueState::isPublishState() const { return false; }

// --- Publishing the queue ----------------------------------------------------------------------

StateMachine::PublishQueueState::PublishQueueState(ChannelInfo info) : fChannelInfo(info) {}

StateMachine::PublishQueueState::~PublishQueueState() { join(); }

void StateMachine::PublishQueueState::start(Queue& queue, Sender sender, std::string channel) {
    // Shared until the thread runs: a thread that cannot be made would take the queue with it.
    const auto handedOver = std::make_shared<Queue>(std::move(queue));
    try {
        fPublishThread = process::makeThread(
            "the backlog",
            [this, handedOver, sender = std::move(sender), channel = std::move(channel)]() mutable {
                publishThread(std::move(*handedOver), std::move(sender), std::move(channel));
            });
    } catch (...) {
        queue = std::move(*handedOver);
        throw;
    }
}

void StateMachine::PublishQueueState::publishThread(Queue queue, Sender sender,
                                                    std::string channel) {
    // What a send throws here is not caught and ends the process: a backlog with a hole in it
    // would draw a wrong figure.
    for (; !queue.empty(); queue.pop_front()) {
        queue.front()->send(fChannelInfo, sender, channel);
    }
}

void StateMachine::PublishQueueState::join() {
    // After a direct send that threw, the thread has been joined already.
    if (fPublishThread.joinable()) fPublishThread.join();
}

std::future<void> StateMachine::PublishQueueState::asyncExecute(
    std::shared_ptr<PayloadSenderTask> task, BootstrapState*& nextState, Sender& sender,
    std::string& channel) {
    join();
    auto direct = std::make_unique<PublishDirectState>(fChannelInfo);
    auto future = direct->asyncExecute(std::move(task), nextState, sender, channel);
    static_cast<void>(direct.release());  // nextState holds it
    return future;
}

StateMachine::BootstrapState* StateMachine::PublishQueueState::execute(
    std::shared_ptr<PayloadSenderTask> task, Sender& sender, std::string& channel) {
    join();
    auto direct = std::make_unique<PublishDirectState>(fChannelInfo);
    static_cast<void>(direct->execute(std::move(task), sender, channel));
    return direct.release();
}

StateMachine::BootstrapState* StateMachine::PublishQueueState::channelReady(
    ChannelInfo info, Sender& /*sender*/, const std::string& /*channel*/) {
    fChannelInfo = info;
    return this;
}

const char* StateMachine::PublishQueueState::stateName() const { return "PublishQueueState"; }

// --- Publishing directly -----------------------------------------------------------------------

StateMachine::PublishDirectState::PublishDirectState(ChannelInfo info) : fChannelInfo(info) {}

std::future<void> StateMachine::PublishDirectState::asyncExecute(
    std::shared_ptr<PayloadSenderTask> task, BootstrapState*& nextState, Sender& sender,
    std::string& channel) {
    // Sender and channel are the state machine's own members, which outlive the send: the
    // machine's destructor waits for the future before it destroys them.
    auto future = std::async(std::launch::async | std::launch::deferred,
                             [task = std::move(task), info = fChannelInfo, &sender, &channel] {
                                 task->send(info, sender, channel);
                             });
    nextState = this;
    return future;
}

StateMachine::BootstrapState* StateMachine::PublishDirectState::execute(
    std::shared_ptr<PayloadSenderTask> task, Sender& sender, std::string& channel) {
    task->send(fChannelInfo, sender, channel);
    return this;
}

StateMachine::BootstrapState* StateMachine::PublishDirectState::channelReady(
    ChannelInfo info, Sender& /*sender*/, const std::string& /*channel*/) {
    fChannelInfo = info;
    return this;
}

const char* StateMachine::PublishDirectState::stateName() const { return "PublishDirectState"; }

}  // namespace kiro::web
