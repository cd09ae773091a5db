#include "orvan/net/http/http_request_priority_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

// A step of a script: a priority is appended, under the letter a, b, c ... of its turn.
constexpr int kPop = 1000;
constexpr int kRemove = 2000;  // kRemove + n removes the n-th appended request

TEST(HttpRequestPriorityQueueTest, OrdersByPriority) {
  const struct {
    const char* says;
    std::vector<int> steps;
    const char* popped;  // by the script, and then to the end
  } rows[] = {
      {"a zero goes in front of all positives", {5, 1, 3, 0}, "dbca"},
      {"equal positives keep their order", {2, 2, 1, 2}, "cabd"},
      {"equal negatives keep their order, in front of zeros", {0, 0, -1, -1}, "cdab"},
      {"a negative in front of zeros leaves the boundary alone", {0, 1, -1, 0}, "cadb"},
      {"a negative that finds an empty queue is overtaken by a zero", {-1, 0}, "ba"},
      {"so is one that finds only positives", {1, -1, 0}, "cba"},
      {"a positive is searched for from such a boundary, and goes behind it", {-1, 0, 1}, "bac"},
      {"a popped boundary moves on", {1, 2, kPop, 0}, "acb"},
      {"a removed boundary moves on", {1, 2, kRemove + 0, 0}, "cb"},
      {"the last entry gone, the boundary is the end", {-1, kPop, 0, 0}, "abc"},
      {"removing elsewhere leaves the boundary", {0, 0, 1, kRemove + 0, 0}, "bdc"},
      {"an absent request is no error", {0, kRemove + 0, kRemove + 0}, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    std::vector<std::unique_ptr<test::PlainRequest>> requests;
    HttpRequestPriorityQueue queue;
    std::string popped;
    const auto pop = [&] {
      HttpRequest* const request = queue.PopNextRequest();
      for (std::size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].get() == request) popped += static_cast<char>('a' + i);
      }
      return request != nullptr;
    };
    for (const int step : row.steps) {
      if (step >= kRemove) {
        queue.RemoveRequest(requests[static_cast<std::size_t>(step - kRemove)].get());
      } else if (step == kPop) {
        pop();
      } else {
        requests.push_back(std::make_unique<test::PlainRequest>());
        requests.back()->SetPriority(step);
        queue.AppendRequest(requests.back().get());
      }
    }
    while (pop()) {
    }
    EXPECT_EQ(popped, row.popped);
    EXPECT_TRUE(queue.IsEmpty());
  }
}

}  // namespace
}  // namespace orvan::net
