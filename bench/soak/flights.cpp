#include "bench/soak/flights.h"

#include <QEventLoop>
#include <cstdio>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/auth_cache.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/system.h"

namespace orvan::bench {

namespace {

constexpr int kAny = -1;
constexpr int kBeatMs = 20;
constexpr int kBeatsUntilLost = 60 * 1000 / kBeatMs;

enum Place { kServer, kDisk };

// How a fetch has to end that nobody cuts off.
struct Kind {
  Place where;
  const char* path;
  int weight;
  net::FetchState state;  // kAny: whatever comes
  int size;               // kAny: whatever comes
};

constexpr Kind kKinds[] = {
    {kServer, "/1k", 30, net::kFetchSuccess, 1024},
    {kServer, "/64k", 8, net::kFetchSuccess, 64 << 10},
    {kServer, "/4m", 1, net::kFetchSuccess, 4 << 20},
    {kServer, "/empty", 1, net::kFetchSuccess, 0},
    {kServer, "/slow", 2, net::kFetchSuccess, 64 << 10},
    {kServer, "/none", 6, 404, 0},
    {kServer, "/broken", 2, 500, 0},
    {kServer, "/nothing", 1, net::kFetchSuccess, 0},
    {kServer, "/hang-up", 1, kAny, 0},
    {kServer, "/moved", 6, net::kFetchSuccess, 1024},
    {kServer, "/away", 3, net::kFetchSuccess, 1024},  // to another server
    {kServer, "/circle", 1, kAny, kAny},
    {kServer, "/locked/1k", 5, kAny, kAny},  // the handler gives the pair, a wrong one, or none
    {kServer, "/%1.kmz", 3, net::kFetchSuccess, 300},
    {kServer, "/%1.kmz/images/b.png", 10, net::kFetchSuccess, 20000},
    {kServer, "/%1.kmz/none.png", 2, net::kFetchCannotOpen, 0},
    {kServer, "/get?id=%1", 2, net::kFetchSuccess, 300},  // an archive that nothing tells in the URL
    {kDisk, "/1k", 4, net::kFetchSuccess, 1024},
    {kDisk, "/none", 2, net::kFetchCannotOpen, 0},
    {kDisk, "/%1.kmz", 2, net::kFetchSuccess, 300},
    {kDisk, "/%1.kmz/images/b.png", 6, net::kFetchSuccess, 20000},
};
constexpr int kArchives = 6;  // on each server, and on disk

}  // namespace

Flights* Flights::s_flights = nullptr;

Flights::Flights(QStringList servers, QString folder, unsigned seed, int fetches, int outstanding)
    : servers_(std::move(servers)),
      folder_(std::move(folder)),
      dice_(seed),
      flights_(static_cast<size_t>(fetches)),
      slots_(static_cast<size_t>(outstanding)) {
  s_flights = this;
  int number = 0;
  for (const Kind& kind : kKinds) {
    kinds_.insert(kinds_.end(), static_cast<size_t>(kind.weight), number++);
  }
  turn_.setSingleShot(true);
  QObject::connect(&turn_, &QTimer::timeout, [this] { Turn(); });
  beat_.setInterval(kBeatMs);
  QObject::connect(&beat_, &QTimer::timeout, [this] {
    ++idle_beats_;
    Turn();
  });
}

Flights::~Flights() { s_flights = nullptr; }

void Flights::Run(int count, Until until) {
  QEventLoop loop;
  loop_ = &loop;
  target_ = count;
  until_ = until;
  idle_beats_ = 0;
  beat_.start();
  turn_.start(0);
  loop.exec();
  beat_.stop();
  turn_.stop();
  loop_ = nullptr;
}

void Flights::Turn() {
  if (!loop_) return;
  for (Slot& slot : slots_) {
    if (slot.number < 0 && started_ < target_) Start(&slot);
  }
  if (Roll(4) == 0) Disturb();
  const bool over = started_ == target_ && (until_ == kAllStarted || under_way_ == 0);
  if (over || idle_beats_ > kBeatsUntilLost) loop_->quit();
}

void Flights::Start(Slot* slot) {
  const int number = started_++;
  Flight& flight = flights_[static_cast<size_t>(number)];
  flight.kind = static_cast<unsigned char>(kinds_[Roll(static_cast<unsigned>(kinds_.size()))]);
  const Kind& kind = kKinds[flight.kind];
  const QString where = kind.where == kDisk
                            ? folder_
                            : servers_[static_cast<int>(Roll(static_cast<unsigned>(servers_.size())))];
  QString path = QString::fromLatin1(kind.path);
  path.replace(QLatin1String("%1"), QString::number(Roll(kArchives)));

  net::Fetcher::FetchParams params;
  params.url = where + path;
  params.callback = &Flights::Done;
  params.user_data = reinterpret_cast<void*>(static_cast<intptr_t>(number));
  params.async = Roll(3) == 0;
  params.use_cache = Roll(16) != 0;
  slot->number = number;
  ++under_way_;
  slot->fetcher = net::Fetcher::fetch(params, nullptr);
  // What is dropped cannot be stopped any more, so it has to end by itself before the library does.
  if (until_ == kAllEnded && Roll(4) == 0) slot->fetcher = nullptr;
  if (slot->fetcher && Roll(40) == 0) Cut(slot);  // at once
}

void Flights::Done(net::Fetcher& fetcher) { s_flights->Ended(fetcher); }

void Flights::Ended(net::Fetcher& fetcher) {
  const auto number = static_cast<int>(reinterpret_cast<intptr_t>(fetcher.GetUserData()));
  Flight& flight = flights_[static_cast<size_t>(number)];
  const Kind& kind = kKinds[flight.kind];
  ++flight.calls;
  flight.late = flight.late || flight.cut;
  const int size = fetcher.GetByteArray().size();
  const bool right =
      (kind.state == kAny || fetcher.GetState() == kind.state) && (kind.size == kAny || size == kind.size);
  // When a server hangs up without an answer, Qt also ends requests that wait for a free socket to it.
  flight.beside = !right && kind.where == kServer && fetcher.GetState() == net::kFetchNoConnection;
  flight.wrong = !right && !flight.beside;
  if (flight.wrong) {
    (void)std::fprintf(stderr, "wrong: %s ended in state %d with %d bytes\n", qPrintable(fetcher.GetUrl()),
                       fetcher.GetState(), size);
  }
  for (Slot& slot : slots_) {
    if (slot.number != number) continue;
    if (slot.fetcher && Roll(8) == 0) {
      flight.cut = true;
      ++stopped_;
      slot.fetcher->Stop();  // inside its own callback
    }
    slot.number = -1;
    slot.fetcher = nullptr;
    --under_way_;
  }
  if (Roll(2) == 0) kept_[Roll(static_cast<unsigned>(kept_.size()))] = &fetcher;
  if (Roll(20) == 0) Disturb();
  idle_beats_ = 0;
  turn_.start(0);
}

// What an application does at moments that no fetch can foresee.
void Flights::Disturb() {
  ++System::s_cur_frame;
  Slot* const slot = &slots_[Roll(static_cast<unsigned>(slots_.size()))];
  switch (Roll(8)) {
    case 0:
    case 1:
      if (slot->fetcher) Cut(slot);
      break;
    case 2:
      MemoryReclaimer::SetBudget(qint64{1} << (16 + Roll(8)));  // 64 KiB to 8 MiB
      break;
    case 3:
      MemoryReclaimer::RunPass();
      break;
    case 4:
      net::HttpConnectionFactory::GetOrCreateAuthCache()->SetAuthInfo(
          {QStringLiteral("127.0.0.%1").arg(Roll(12)), QStringLiteral("locked")},
          {QStringLiteral("name"), QStringLiteral("word")});
      break;
    case 5:
      if (Roll(4) == 0) net::HttpConnectionFactory::ClearAuthCache();
      break;
    case 6:
      if (Roll(4) == 0) net::CookieJar::ClearAllCookies();
      break;
    default:
      kept_[Roll(static_cast<unsigned>(kept_.size()))] = nullptr;
  }
}

void Flights::Cut(Slot* slot) {
  flights_[static_cast<size_t>(slot->number)].cut = true;
  if (Roll(4) == 0) {
    ++withdrawn_;
    slot->fetcher->SetCallback(nullptr);  // goes on, if somebody else holds it
    if (Roll(2) == 0) kept_[Roll(static_cast<unsigned>(kept_.size()))] = slot->fetcher;
  } else {
    ++stopped_;
    slot->fetcher->Stop();
  }
  slot->number = -1;
  slot->fetcher = nullptr;
  --under_way_;
  turn_.start(0);
}

void Flights::StopAll() {
  for (Slot& slot : slots_) {
    if (!slot.fetcher) continue;
    flights_[static_cast<size_t>(slot.number)].cut = true;
    ++stopped_;
    slot.fetcher->Stop();
    slot.number = -1;
    slot.fetcher = nullptr;
    --under_way_;
  }
}

void Flights::DropKept() { kept_.fill(nullptr); }

Tally Flights::Count() const {
  Tally tally;
  tally.stopped = stopped_;
  tally.withdrawn = withdrawn_;
  for (int i = 0; i < started_; ++i) {
    const Flight& flight = flights_[static_cast<size_t>(i)];
    tally.ended += flight.calls > 0;
    tally.lost += flight.calls == 0 && !flight.cut;
    tally.doubled += flight.calls > 1;
    tally.late += flight.late;
    tally.beside += flight.beside;
    tally.wrong += flight.wrong;
  }
  return tally;
}

}  // namespace orvan::bench
