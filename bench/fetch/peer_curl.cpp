#include <curl/curl.h>

#include <deque>
#include <string>

#include "bench/fetch/load.h"

namespace orvan::bench {

namespace {

struct Transfer {
  int number;
  CURL* handle;
  std::string body;
};

size_t Append(char* bytes, size_t size, size_t count, void* transfer) {
  std::string& body = static_cast<Transfer*>(transfer)->body;
  if (body.empty()) {
    curl_off_t length = 0;
    curl_easy_getinfo(static_cast<Transfer*>(transfer)->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length > 0) body.reserve(static_cast<size_t>(length));
  }
  body.append(bytes, size * count);
  return size * count;
}

}  // namespace

void RunCurlMulti(const Load& load, Meter* meter) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* const multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);  // as many as Qt opens
  const std::string ca = load.ca_file.toStdString();
  std::deque<CURL*> idle;  // handles are used again, as a program that cares would do
  bool finished = false;
  meter->Begin(
      [&](int number, const QString& url) {
        CURL* handle = nullptr;
        if (idle.empty()) {
          handle = curl_easy_init();
        } else {
          handle = idle.front();
          idle.pop_front();
        }
        auto* const transfer = new Transfer{number, handle, {}};
        curl_easy_setopt(handle, CURLOPT_URL, url.toUtf8().constData());
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Append);
        curl_easy_setopt(handle, CURLOPT_WRITEDATA, transfer);
        curl_easy_setopt(handle, CURLOPT_PRIVATE, transfer);
        curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        if (!ca.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, ca.c_str());
        curl_multi_add_handle(multi, handle);
      },
      [&] { finished = true; });
  while (!finished) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int left = 0;
    while (CURLMsg* const message = curl_multi_info_read(multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* const handle = message->easy_handle;
      const CURLcode code = message->data.result;
      Transfer* transfer = nullptr;
      curl_easy_getinfo(handle, CURLINFO_PRIVATE, &transfer);
      curl_multi_remove_handle(multi, handle);
      idle.push_back(handle);
      meter->Completed(transfer->number, code == CURLE_OK, static_cast<qint64>(transfer->body.size()));
      delete transfer;
    }
    if (!finished) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  for (CURL* const handle : idle) curl_easy_cleanup(handle);
  curl_multi_cleanup(multi);
  curl_global_cleanup();
}

}  // namespace orvan::bench
