#include "sync/mutex.h"

namespace Base {

Mutex::Mutex() { pthread_mutex_init(&mutex, nullptr); }

Mutex::~Mutex() { pthread_mutex_destroy(&mutex); }

void Mutex::enter() { pthread_mutex_lock(&mutex); }

void Mutex::leave() { pthread_mutex_unlock(&mutex); }

}  // namespace Base
