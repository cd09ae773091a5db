#include "orvan/net/identity/certificate_handler.h"
#include "orvan/net/identity/username_password_query_handler.h"

namespace orvan::net {

// Out of line, so that the type information of both interfaces lives in this library.
ICertificateHandler::~ICertificateHandler() = default;
IUsernamePasswordQueryHandler::~IUsernamePasswordQueryHandler() = default;

}  // namespace orvan::net
