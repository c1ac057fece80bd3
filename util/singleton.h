// SPDX-License-Identifier: Apache-2.0
//
// How the object of a class of which there is one per process is made.
#pragma once

#include <atomic>

#include "util/mutex.h"

namespace Tesu::Bpf {

// The object, made by `make` on first use and never destroyed. Any thread; once the object is there
// this costs a load. `instance` and `creation` are the class's static members.
template <class T, class Make>
T* GetOrMake(std::atomic<T*>& instance, Mutex& creation, Make make) EXCLUDES(creation) {
    T* object = instance.load(std::memory_order_acquire);
    if (object == nullptr) {
        MutexLock lock(creation);
        object = instance.load(std::memory_order_relaxed);
        if (object == nullptr) {
            object = make();
            instance.store(object, std::memory_order_release);
        }
    }
    return object;
}

}  // namespace Tesu::Bpf
