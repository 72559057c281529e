// Base::Mutex: a plain POSIX mutex with default attributes: neither
// recursive nor error-checking, so entering it twice on one thread hangs.
#pragma once

#include <pthread.h>

namespace Base {

class Mutex {
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void enter();
    void leave();

private:
    pthread_mutex_t mutex;
};

}  // namespace Base
