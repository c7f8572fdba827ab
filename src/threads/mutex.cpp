#include "zelkit3/mutex.h"

namespace zelkit3 {

// Results of the pthread calls are not examined: with a valid object and a
// recursive type none of them can fail in a way the caller could act on.
Mutex::Mutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mMutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

Mutex::~Mutex() { pthread_mutex_destroy(&mMutex); }

void Mutex::lock() { pthread_mutex_lock(&mMutex); }

void Mutex::unlock() { pthread_mutex_unlock(&mMutex); }

}  // namespace zelkit3

PosixCondVar::PosixCondVar() : mSignaled(false) {
  pthread_cond_init(&mCondVar, nullptr);
  pthread_mutex_init(&mMutex, nullptr);
}

PosixCondVar::~PosixCondVar() {
  pthread_cond_destroy(&mCondVar);
  pthread_mutex_destroy(&mMutex);
}

pthread_cond_t* PosixCondVar::getCondVar() { return &mCondVar; }

pthread_mutex_t* PosixCondVar::getMutex() { return &mMutex; }
