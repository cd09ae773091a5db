#include "orvan/net/http/qnetwork/body_decoder.h"

#include "orvan/support/memory/heap_buffer.h"

namespace orvan::net {

namespace {

constexpr int kAnyHeader = MAX_WBITS + 32;  // of gzip or of zlib
constexpr int kNoHeader = -MAX_WBITS;

Bytef* BytesOf(const QByteArray& packed) {
  return const_cast<Bytef*>(reinterpret_cast<const Bytef*>(packed.constData()));  // zlib only reads them
}

}  // namespace

std::unique_ptr<BodyDecoder> BodyDecoder::Make(const QByteArray& encoding) {
  const QByteArray name = encoding.toLower();
  if (name != "gzip" && name != "deflate") return nullptr;
  return std::unique_ptr<BodyDecoder>(new BodyDecoder);
}

BodyDecoder::BodyDecoder() { broken_ = inflateInit2(&stream_, kAnyHeader) != Z_OK; }

BodyDecoder::~BodyDecoder() { inflateEnd(&stream_); }

bool BodyDecoder::Feed(const QByteArray& packed, HeapBuffer* body) {
  stream_.next_in = BytesOf(packed);
  stream_.avail_in = static_cast<uInt>(packed.size());
  bool more = !packed.isEmpty();
  while (more && !ended_ && !broken_) {
    char piece[16 * 1024];  // appending it doubles the room for what follows
    const unsigned int room = body->capacity() - body->size();
    const unsigned int space = room > 0 ? room : sizeof piece;
    stream_.next_out = reinterpret_cast<Bytef*>(room > 0 ? body->data() + body->size() : piece);
    stream_.avail_out = space;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    const unsigned int got = space - stream_.avail_out;
    if (room > 0) {
      body->SetSize(body->size() + got);
    } else if (!body->AppendData(piece, static_cast<int>(got))) {
      return false;
    }
    Judge(result, packed);
    more = stream_.avail_in > 0 || stream_.avail_out == 0;
  }
  return true;
}

void BodyDecoder::Judge(int result, const QByteArray& packed) {
  // Some servers send "deflate" without its header.
  if (result == Z_DATA_ERROR && may_be_raw_ && stream_.total_out == 0) {
    may_be_raw_ = false;
    broken_ = inflateReset2(&stream_, kNoHeader) != Z_OK;
    stream_.next_in = BytesOf(packed);
    stream_.avail_in = static_cast<uInt>(packed.size());
    return;
  }
  may_be_raw_ = false;
  ended_ = result == Z_STREAM_END;
  broken_ = !ended_ && result != Z_OK && result != Z_BUF_ERROR;  // the latter wants more, of either
}

}  // namespace orvan::net
