#pragma once

#include <atomic>
#include <deque>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ChannelInfo.hpp"
#include "PayloadSenderTask.hpp"
#include "annotated/Mutex.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/Subscriber.hpp"

namespace kiro::web {

class BootstrappingCommandSender::Impl {
  public:
    class StateMachine;

    Impl(const std::string& name, const std::string& commandListener);
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    /// Waits until the machine has gone, an announcement that it is handling included.
    ~Impl();

    [[nodiscard]] bool getReadyStatus() const;
    [[nodiscard]] bool getUsingBinary() const;
    [[nodiscard]] bool getUsingFastBinary() const;
    void setEnable(bool enable);
    [[nodiscard]] bool isEnabled() const;
    void sendCommand(JSONPayload&& payload);
    void sendBinaryData(binary::BinaryDataPayload&& payload);
    void sendBinaryDataAsync(binary::BinaryDataPayload&& payload);
    void setBinaryChannelName(const std::string& name);
    void removeFinishedAsyncTasksFromCache();

  private:
    std::unique_ptr<Subscriber> fReadySubscription;
    /// The only strong owner; the subscription's callback holds it weakly.
    std::shared_ptr<StateMachine> fStateMachine;
    bool fEnabled = true;
    std::string fCommandListener;
};

/// Queues until the client is ready, then publishes the queue from a thread, then sends directly.
/// It leaves `QueueState` on the first announcement and `PublishQueueState` on the first send
/// after that, and never goes back.
class BootstrappingCommandSender::Impl::StateMachine {
  public:
    explicit StateMachine(const std::string& name);
    StateMachine(const StateMachine&) = delete;
    StateMachine& operator=(const StateMachine&) = delete;
    /// Waits for asynchronous sends and for the backlog that is being published; a backlog still
    /// queued is dropped.
    ~StateMachine();

    /// The message service's delivery thread. Each of the four holds the mutex for the whole call
    /// of the state, a direct send and the join of the publish thread included.
    void channelReady(ChannelInfo info) EXCLUDES_LOCK(fMutex);
    void sendCommand(JSONPayload&& payload) EXCLUDES_LOCK(fMutex);
    void sendBinaryData(binary::BinaryDataPayload&& payload) EXCLUDES_LOCK(fMutex);
    void sendBinaryDataAsync(binary::BinaryDataPayload&& payload) EXCLUDES_LOCK(fMutex);

    /// What is thrown when the sender cannot be made leaves name and sender as they were.
    void setBinaryChannelName(const std::string& name);
    /// Leaves out the lock: the cache is the engine's thread's, which is also the one that sends.
    void removeFinishedAsyncTasksFromCache() NO_THREAD_SAFETY_ANALYSIS;

    /// Ready when the destructor has done all of its work, on whatever thread. Once.
    [[nodiscard]] std::future<void> gone() { return fGone.get_future(); }

    /// Any thread.
    [[nodiscard]] bool getReadyStatus() const { return fReadyStatus; }
    [[nodiscard]] bool getUsingBinary() const { return fChannelInfo.load().usingBinary; }
    [[nodiscard]] bool getUsingFastBinary() const { return fChannelInfo.load().usingFastBinary; }

  private:
    class BootstrapState;
    class QueueState;
    class PublishQueueState;
    class PublishDirectState;

    /// Makes `next`, which it owns from then on, the current state; null and the current one mean
    /// "stay".
    void setBootstrapState(BootstrapState* next) REQUIRES_LOCK(fMutex);
    void execute(std::shared_ptr<PayloadSenderTask> task) EXCLUDES_LOCK(fMutex);
    void log(const char* event, const char* more = "") const noexcept;

    std::promise<void> fGone;
    std::atomic<bool> fReadyStatus = false;
    std::string fName;
    std::string fBinaryChannelName;
    std::shared_ptr<binary::BinaryDataSenderInterface> fBinarySender;
    annotated::Mutex fMutex{annotated::Rank::kSender};
    std::unique_ptr<BootstrapState> fCurrentState GUARDED_BY(fMutex);
    std::vector<std::future<void>> fAsyncTaskCache GUARDED_BY(fMutex);
    AtomicChannelInfo fChannelInfo = ChannelInfo();
};

/// One of the three states. `execute` and `channelReady` return the next state, which their
/// caller then owns, or `this`; called under the machine's mutex.
class BootstrappingCommandSender::Impl::StateMachine::BootstrapState {
  public:
    using Sender = std::shared_ptr<binary::BinaryDataSenderInterface>;

    BootstrapState() = default;
    BootstrapState(const BootstrapState&) = delete;
    BootstrapState& operator=(const BootstrapState&) = delete;
    virtual ~BootstrapState();

    /// Starts the send and sets `nextState`; an invalid future says that nothing was started.
    virtual std::future<void> asyncExecute(std::shared_ptr<PayloadSenderTask> task,
                                           BootstrapState*& nextState, Sender& sender,
                                           std::string& channel) = 0;
    virtual BootstrapState* execute(std::shared_ptr<PayloadSenderTask> task, Sender& sender,
                                    std::string& channel) = 0;
    virtual BootstrapState* channelReady(ChannelInfo info, Sender& sender,
                                         const std::string& channel) = 0;
    [[nodiscard]] virtual const char* stateName() const = 0;
    [[nodiscard]] virtual bool isPublishState() const;
};

class BootstrappingCommandSender::Impl::StateMachine::QueueState : public BootstrapState {
  public:
    std::future<void> asyncExecute(std::shared_ptr<PayloadSenderTask> task,
                                   BootstrapState*& nextState, Sender& sender,
                                   std::string& channel) override;
    BootstrapState* execute(std::shared_ptr<PayloadSenderTask> task, Sender& sender,
                            std::string& channel) override;
    BootstrapState* channelReady(ChannelInfo info, Sender& sender,
                                 const std::string& channel) override;
    [[nodiscard]] const char* stateName() const override;
    [[nodiscard]] bool isPublishState() const override;

  private:
    std::deque<std::shared_ptr<PayloadSenderTask>> fQueue;
};

class BootstrappingCommandSender::Impl::StateMachine::PublishQueueState : public BootstrapState {
  public:
    using Queue = std::deque<std::shared_ptr<PayloadSenderTask>>;

    explicit PublishQueueState(ChannelInfo info);
    /// Joins the publish thread: the backlog is always fully sent.
    ~PublishQueueState() override;

    /// Moves `queue` into the publish thread. When no thread can be made, the `std::system_error`
    /// is passed on and `queue` is whole again.
    void start(Queue& queue, Sender sender, std::string channel);

    std::future<void> asyncExecute(std::shared_ptr<PayloadSenderTask> task,
                                   BootstrapState*& nextState, Sender& sender,
                                   std::string& channel) override;
    BootstrapState* execute(std::shared_ptr<PayloadSenderTask> task, Sender& sender,
                            std::string& channel) override;
    BootstrapState* channelReady(ChannelInfo info, Sender& sender,
                                 const std::string& channel) override;
    [[nodiscard]] const char* stateName() const override;

  private:
    void publishThread(Queue queue, Sender sender, std::string channel);
    void join();

    std::thread fPublishThread;
    /// Read by the publish thread for every task, replaced by announcements.
    AtomicChannelInfo fChannelInfo;
};

class BootstrappingCommandSender::Impl::StateMachine::PublishDirectState : public BootstrapState {
  public:
    explicit PublishDirectState(ChannelInfo info);

    std::future<void> asyncExecute(std::shared_ptr<PayloadSenderTask> task,
                                   BootstrapState*& nextState, Sender& sender,
                                   std::string& channel) override;
    BootstrapState* execute(std::shared_ptr<PayloadSenderTask> task, Sender& sender,
                            std::string& channel) override;
    BootstrapState* channelReady(ChannelInfo info, Sender& sender,
                                 const std::string& channel) override;
    [[nodiscard]] const char* stateName() const override;

  private:
    ChannelInfo fChannelInfo;
};

}  // namespace kiro::web
