#include "telemetry/NetworkWorker.h"

#include "common/Handles.h"
#include "common/Platform.h"

#include <deque>
#include <memory>
#include <utility>

namespace kite {

namespace {

// A reference on the module that holds this code, for a thread that may outlive the host's own.
HMODULE ReferenceThisModule() {
    HMODULE module = nullptr;
    ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                         reinterpret_cast<LPCSTR>(&ReferenceThisModule), &module);
    return module;
}

struct ThreadStart {
    LPTHREAD_START_ROUTINE routine;
    void* argument;
    HMODULE module;
};

DWORD WINAPI RunThread(void* raw) {
    const ThreadStart start = *static_cast<ThreadStart*>(raw);
    delete static_cast<ThreadStart*>(raw);
    start.routine(start.argument);
    ::FreeLibraryAndExitThread(start.module, 0);
    return 0;
}

// Starts the thread with a module reference that the thread gives back as it exits.
bool StartThread(LPTHREAD_START_ROUTINE routine, void* argument) {
    UniqueModule module(ReferenceThisModule());
    if (!module) return false;
    auto start = std::make_unique<ThreadStart>(ThreadStart{routine, argument, module.get()});
    UniqueHandle thread(::CreateThread(nullptr, 0, RunThread, start.get(), 0, nullptr));
    if (!thread) return false;
    // The thread owns both from here: it deletes the record and gives the reference back.
    start.release();
    module.release();
    return true;
}

// Shared by the waiting thread and the worker; the last of the two to let go deletes it.
struct BoundedJob {
    std::function<void()> work;
    UniqueHandle done{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    LONG holders = 2;
};

void LetGo(BoundedJob* job) {
    if (::InterlockedDecrement(&job->holders) == 0) delete job;
}

DWORD WINAPI RunJob(void* raw) {
    BoundedJob* job = static_cast<BoundedJob*>(raw);
    try {
        job->work();
    } catch (...) {
    }
    ::SetEvent(job->done.get());
    LetGo(job);
    return 0;
}

struct WorkQueue {
    SRWLOCK lock = SRWLOCK_INIT;
    CONDITION_VARIABLE idle = CONDITION_VARIABLE_INIT;
    std::deque<std::function<void()>> items;
    bool running = false;  // a worker thread exists
    bool busy = false;     // the worker has an item under way
};

// Never destroyed: a worker may still run while the process ends.
WorkQueue& Queue() {
    static WorkQueue* const queue = new WorkQueue();
    return *queue;
}

// Runs the queue until it is empty, then ends; the next item starts a new worker.
DWORD WINAPI DrainQueue(void*) {
    WorkQueue& queue = Queue();
    ::AcquireSRWLockExclusive(&queue.lock);
    while (!queue.items.empty()) {
        std::function<void()> work = std::move(queue.items.front());
        queue.items.pop_front();
        queue.busy = true;
        ::ReleaseSRWLockExclusive(&queue.lock);
        try {
            work();
        } catch (...) {
        }
        work = nullptr;
        ::AcquireSRWLockExclusive(&queue.lock);
        queue.busy = false;
        ::WakeAllConditionVariable(&queue.idle);
    }
    queue.running = false;
    ::WakeAllConditionVariable(&queue.idle);
    ::ReleaseSRWLockExclusive(&queue.lock);
    return 0;
}

class QueueLock {
  public:
    QueueLock() { ::AcquireSRWLockExclusive(&Queue().lock); }
    ~QueueLock() { ::ReleaseSRWLockExclusive(&Queue().lock); }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;
};

}  // namespace

void SetNetworkTimeouts(HINTERNET handle, bool rootHandle) {
    DWORD timeout = kNetworkTimeoutMs;
    Platform().InternetSetOptionA(handle, INTERNET_OPTION_CONNECT_TIMEOUT, &timeout,
                                  sizeof timeout);
    if (rootHandle) return;
    Platform().InternetSetOptionA(handle, INTERNET_OPTION_SEND_TIMEOUT, &timeout, sizeof timeout);
    Platform().InternetSetOptionA(handle, INTERNET_OPTION_RECEIVE_TIMEOUT, &timeout,
                                  sizeof timeout);
}

bool RunBounded(std::function<void()> work, DWORD milliseconds) {
    BoundedJob* job = new BoundedJob;
    job->work = std::move(work);
    if (!job->done || !StartThread(RunJob, job)) {
        delete job;
        return false;
    }
    const bool finished = ::WaitForSingleObject(job->done.get(), milliseconds) == WAIT_OBJECT_0;
    LetGo(job);
    return finished;
}

void EnqueueNetworkWork(std::function<void()> work) {
    QueueLock lock;
    WorkQueue& queue = Queue();
    queue.items.push_back(std::move(work));
    if (queue.running) return;
    queue.running = StartThread(DrainQueue, nullptr);
    if (!queue.running) queue.items.pop_back();
}

std::size_t FlushNetworkWork(DWORD milliseconds) {
    const ULONGLONG deadline = ::GetTickCount64() + milliseconds;
    QueueLock lock;
    WorkQueue& queue = Queue();
    while (!queue.items.empty() || queue.busy) {
        const ULONGLONG now = ::GetTickCount64();
        if (now >= deadline) break;
        ::SleepConditionVariableSRW(&queue.idle, &queue.lock, static_cast<DWORD>(deadline - now),
                                    0);
    }
    const std::size_t dropped = queue.items.size();
    queue.items.clear();
    return dropped;
}

}  // namespace kite
