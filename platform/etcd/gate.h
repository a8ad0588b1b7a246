// How a library of this platform is entered: by one thread at a time, which is not cancelled meanwhile. A fork enters
// as well: so nobody finds TLS or the allocator in the middle of something in the child. Whoever works for long lets
// the others pass from time to time.
#pragma once

#include <poll.h>
#include <pthread.h>

#include <atomic>

namespace etcd {

class Gate {
public:
    void enter()
    {
        ++waiting_;
        pthread_mutex_lock(&mutex_);
        --waiting_;
    }
    void leave() { pthread_mutex_unlock(&mutex_); }

    // Between two steps of something long. The pause is there because a mutex goes to whoever comes first.
    void let_pass()
    {
        if (waiting_.load() > 0) {
            leave();
            (void)poll(nullptr, 0, 1);
            enter();
        }
    }

    // In a child made by fork: those who wait are threads that it doesn't have.
    void leave_in_child()
    {
        waiting_ = 0;
        leave();
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<int> waiting_{0};
};

class Entered {
public:
    explicit Entered(Gate &gate) : gate_(gate) { gate_.enter(); }
    ~Entered() { gate_.leave(); }
    Entered(const Entered &) = delete;
    Entered &operator=(const Entered &) = delete;

private:
    Gate &gate_;
};

}  // namespace etcd
