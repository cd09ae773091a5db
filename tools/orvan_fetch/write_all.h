#pragma once

#include <QByteArray>

namespace orvan_fetch {

// Writes all of `bytes`, however slowly they are taken. False with errno set if that fails, EINTR if the user
// has had enough.
[[nodiscard]] bool WriteAll(int descriptor, const QByteArray& bytes);

}  // namespace orvan_fetch
