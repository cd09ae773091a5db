#include "orvan/net/http/request_set.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

// Ends inside Cancel(), as a transport may, and lets another thread work before that returns.
class EndingRequest : public test::PlainRequest {
 public:
  void Cancel() override {
    InvokeCallback();
    std::thread(meanwhile).join();
  }
  std::function<void()> meanwhile = [] {};
};

struct CountingCallback : HttpRequest::Callback {
  int RequestDone(HttpRequest*, void*) override { return ++count; }
  int count = 0;
};

TEST(RequestSetTest, CancelsFirstAndDetachesSecond) {
  CountingCallback callback;
  auto *const request = new EndingRequest, *const other = new EndingRequest, *const late = new EndingRequest;
  RequestSet set;
  for (EndingRequest* each : {request, other, late}) each->SetCallback(&callback, nullptr);
  for (EndingRequest* each : {request, request, other}) set.AddPendingRequest(each);
  EXPECT_EQ(request->getRefCount(), 2) << "once";
  for (int times = 0; times < 2; ++times) set.RemovePendingRequest(other);
  EXPECT_EQ(other->getRefCount(), 1) << "given back once";
  auto* const gone = new EndingRequest;
  gone->unref();
  set.RemovePendingRequest(gone);
  request->meanwhile = [&] { set.AddPendingRequest(late); };
  set.CancelAllRequests();
  EXPECT_EQ(callback.count, 2) << "what came meanwhile is cancelled too, what was removed is not";
  EXPECT_FALSE(set.PopOneRequest());
  for (EndingRequest* each : {request, late}) {
    EXPECT_EQ(each->InvokeCallback(), 0);
    EXPECT_EQ(each->getRefCount(), 1);
  }
  for (EndingRequest* each : {request, other, late}) each->unref();
}

}  // namespace
}  // namespace orvan::net
