#include "orvan/net/http/request_set.h"

#include <gtest/gtest.h>

#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

// Ends inside Cancel(), as a transport may.
class EndingRequest : public test::PlainRequest {
 public:
  void Cancel() override { InvokeCallback(); }
};

struct CountingCallback : HttpRequest::Callback {
  int RequestDone(HttpRequest*, void*) override { return ++count; }
  int count = 0;
};

TEST(RequestSetTest, CancelsFirstAndDetachesSecond) {
  CountingCallback callback;
  auto* const request = new EndingRequest;
  request->SetCallback(&callback, nullptr);
  RequestSet set;
  set.AddPendingRequest(request);
  set.AddPendingRequest(request);
  EXPECT_EQ(request->getRefCount(), 2) << "once";
  set.CancelAllRequests();
  EXPECT_EQ(callback.count, 1);
  EXPECT_EQ(request->InvokeCallback(), 0);
  EXPECT_EQ(request->getRefCount(), 1);
  request->unref();
}

}  // namespace
}  // namespace orvan::net
