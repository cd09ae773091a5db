#include "orvan/support/job/timer.h"

#include "orvan/support/job/event_pump.h"

namespace orvan {

SyncMethod::SyncMethod(const char* name, port::QOFramework::CommandEvent::Priority) : name_(name) {}

SyncMethod::~SyncMethod() { EventPump::Get().Withdraw(this); }

void SyncMethod::Withdraw() { EventPump::Get().Withdraw(this); }

Timer::Timer(const char* name, port::QOFramework::CommandEvent::Priority) : name_(name) {}

Timer::~Timer() { EventPump::Get().Withdraw(this); }

void Timer::dispatch() { Fire(); }

void Timer::Start(unsigned int milliseconds, bool single_shot) {
  EventPump::Get().StartTimer(this, milliseconds, single_shot);
}

void Timer::Stop() { EventPump::Get().StopTimer(this); }

bool Timer::IsActive() const { return EventPump::Get().IsTimerActive(this); }

void Timer::ExecuteAsync(SyncMethod& method) { EventPump::Get().PostCall(&method); }

void Timer::Withdraw() { EventPump::Get().Withdraw(this); }

}  // namespace orvan
