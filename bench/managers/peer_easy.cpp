#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "bench/managers/peers.h"

namespace orvan::bench {

namespace {

size_t Append(char* bytes, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(bytes, size * count);
  return size * count;
}

// What is still to be sent.
struct Shared {
  std::mutex mutex;  // over the meter, too
  std::condition_variable changed;
  std::deque<std::pair<int, std::string>> waiting;
  bool finished = false;
};

bool Perform(CURL* handle, const std::string& url, const std::string& ca, std::string* body) {
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Append);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, body);
  if (!ca.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, ca.c_str());
  return curl_easy_perform(handle) == CURLE_OK;
}

void Serve(Shared* shared, Meter* meter, Handles handles, const std::string& ca) {
  CURL* handle = curl_easy_init();
  std::unique_lock<std::mutex> lock(shared->mutex);
  for (;;) {
    shared->changed.wait(lock, [shared] { return shared->finished || !shared->waiting.empty(); });
    if (shared->finished) break;
    const auto [number, url] = shared->waiting.front();
    shared->waiting.pop_front();
    lock.unlock();
    if (!handle) handle = curl_easy_init();
    std::string body;
    const bool good = Perform(handle, url, ca, &body);
    if (handles == kOneForEachRequest) {
      curl_easy_cleanup(handle);
      handle = nullptr;
    }
    lock.lock();
    meter->Completed(number, good, static_cast<qint64>(body.size()));
  }
  curl_easy_cleanup(handle);
}

}  // namespace

void RunEasyHandles(const Load& load, Meter* meter, Handles handles) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Shared shared;
  {
    const std::lock_guard<std::mutex> guard(shared.mutex);
    // Called with the mutex held, here and by the threads.
    meter->Begin(
        [&shared](int number, const QString& url) {
          shared.waiting.emplace_back(number, url.toStdString());
          shared.changed.notify_one();
        },
        [&shared] {
          shared.finished = true;
          shared.changed.notify_all();
        });
  }
  std::vector<std::thread> threads;
  const std::string ca = load.ca_file.toStdString();
  for (int i = 1; i < load.outstanding; ++i) threads.emplace_back(Serve, &shared, meter, handles, ca);
  Serve(&shared, meter, handles, ca);
  for (std::thread& thread : threads) thread.join();
  curl_global_cleanup();
}

double EasyConnectionMicroseconds(int count, int port) {
  using Clock = std::chrono::steady_clock;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
  const auto once = [&url] {
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_perform(handle);
    curl_easy_cleanup(handle);
  };
  once();
  const auto begin = Clock::now();
  for (int i = 0; i < count; ++i) once();
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / count;
}

}  // namespace orvan::bench
