#pragma once

#include <memory>

#include "orvan/support/memory/containers.h"

namespace orvan {

// How an emitter tells an observer of an event.
template <typename Observer, typename Event>
struct EmitterDefaultTrait {
  static void Notify(Observer* observer, const Event& event) { observer->OnEvent(event); }
};

// A list of observers that are told of events, in the order in which they were added.
//
// Threads:   unguarded; the owner has a lock for it. Observers may be removed while they are being told.
// Ownership: observers are not owned.
template <typename Observer, typename Event, typename Trait = EmitterDefaultTrait<Observer, Event>>
class Emitter {
 public:
  Emitter() = default;
  Emitter(const Emitter&) = delete;
  Emitter& operator=(const Emitter&) = delete;
  ~Emitter() = default;

  void AddObserver(Observer* observer) { records_.push_back(std::make_unique<Record>(Record{observer})); }
  // Takes the first record of `observer` away; false if there is none.
  bool RemoveObserver(Observer* observer) {
    for (auto it = records_.begin(); it != records_.end(); ++it) {
      if ((*it)->observer != observer) continue;
      if (emitting_ > 0) {
        (*it)->observer = nullptr;  // swept when the outermost Emit() ends
      } else {
        records_.erase(it);
      }
      return true;
    }
    return false;
  }
  void Emit(const Event& event) {
    ++emitting_;
    for (std::size_t i = 0; i < records_.size(); ++i) {
      if (records_[i]->observer) Trait::Notify(records_[i]->observer, event);
    }
    if (--emitting_ == 0) Sweep();
  }

 private:
  struct Record {
    Observer* observer;
  };
  void Sweep() {
    for (auto it = records_.begin(); it != records_.end();) {
      it = (*it)->observer ? it + 1 : records_.erase(it);
    }
  }

  mmvector<std::unique_ptr<Record>> records_;
  int emitting_ = 0;
};

}  // namespace orvan
