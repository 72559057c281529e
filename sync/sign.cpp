#include "sync/sign.h"

namespace Base {

timespec add_milliseconds(const timespec& now, int ms) {
    timespec t = now;
    t.tv_sec += ms / 1000;
    t.tv_nsec += long(ms % 1000) * 1000000L;
    if (t.tv_nsec > 999999999L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

Sign::Sign(int count) : count(count) {
    pthread_mutex_init(&mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
}

Sign::~Sign() {
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
}

// Every set wakes one waiter, whatever the count was: with two threads in
// join, two sets must release both, and the second set finds the count at 1
// when the first waiter has not yet taken its signal.
void Sign::set() {
    pthread_mutex_lock(&mutex);
    count += 1;
    pthread_cond_signal(&cond);
    pthread_mutex_unlock(&mutex);
}

void Sign::join() {
    pthread_mutex_lock(&mutex);
    while (count < 1) pthread_cond_wait(&cond, &mutex);
    count -= 1;
    pthread_mutex_unlock(&mutex);
}

timespec Sign::deadline(int ms) const {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return add_milliseconds(now, ms);
}

// A spurious wake-up passes as a signal without one having been counted; the
// count then stays at 0 instead of going negative, which would swallow the
// next real set() and could leave a later join() waiting for ever.
void Sign::take(bool clear) {
    if (clear || count < 1)
        count = 0;
    else
        count -= 1;
}

bool Sign::timed_wait(int ms, bool clear) {
    pthread_mutex_lock(&mutex);
    if (count < 1) {
        timespec until = deadline(ms);
        if (pthread_cond_timedwait(&cond, &mutex, &until) != 0) {
            pthread_mutex_unlock(&mutex);
            return false;
        }
    }
    take(clear);
    pthread_mutex_unlock(&mutex);
    return true;
}

bool Sign::timed_multi_wait(int ms, int n) {
    timespec until = deadline(ms);
    for (int i = 0; i < n; i++) {
        pthread_mutex_lock(&mutex);
        if (count < 1 && pthread_cond_timedwait(&cond, &mutex, &until) != 0) {
            pthread_mutex_unlock(&mutex);
            return false;
        }
        take(false);
        pthread_mutex_unlock(&mutex);
    }
    return true;
}

void Sign::clear() {
    pthread_mutex_lock(&mutex);
    count = 0;
    pthread_mutex_unlock(&mutex);
}

int Sign::get_count() {
    pthread_mutex_lock(&mutex);
    int value = count;
    pthread_mutex_unlock(&mutex);
    return value;
}

}  // namespace Base
