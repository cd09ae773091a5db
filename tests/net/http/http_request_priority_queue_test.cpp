#include "orvan/net/http/http_request_priority_queue.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

TEST(HttpRequestPriorityQueueTest, OrdersByPriority) {
  constexpr int kPop = 1000;     // a step; any other number is a priority that is appended, under the letter
  constexpr int kRemove = 2000;  // a, b, c ... of its turn, or kRemove + the place of one to remove
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
    std::list<test::PlainRequest> requests;
    HttpRequestPriorityQueue queue;
    std::string popped;
    const auto pop = [&] {
      HttpRequest* const request = queue.PopNextRequest();
      if (request) popped += request->GetURL().toStdString();
      return request != nullptr;
    };
    for (const int step : row.steps) {
      if (step >= kRemove) {
        queue.RemoveRequest(&*std::next(requests.begin(), step - kRemove));
      } else if (step == kPop) {
        pop();
      } else {
        requests.emplace_back(QString(QChar(static_cast<ushort>('a' + requests.size())))).SetPriority(step);
        queue.AppendRequest(&requests.back());
      }
    }
    while (pop()) {
    }
    EXPECT_EQ(popped, row.popped) << row.says;
  }
}

}  // namespace
}  // namespace orvan::net
