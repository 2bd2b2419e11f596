// Lets `n` receivers meet: each attend() waits until all have entered, which
// only succeeds when they run on threads of their own at the same time.
#ifndef HMISVC_TESTS_MEETING_H
#define HMISVC_TESTS_MEETING_H

#include <chrono>
#include <condition_variable>
#include <mutex>

class Meeting {
public:
    explicit Meeting(int n) : n_(n) {}
    bool attend()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++arrived_;
        all_.notify_all();
        return all_.wait_for(lock, std::chrono::seconds(10), [&] { return arrived_ >= n_; });
    }

private:
    int n_;
    int arrived_ = 0;
    std::mutex mutex_;
    std::condition_variable all_;
};

#endif
