#include "zelkit3/mutex.h"

#include "base/recursive_mutex.h"

namespace zelkit3 {

Mutex::Mutex() { detail::initRecursiveMutex(&mMutex); }

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
