// Passes a device's answer on to the user as it comes.
#pragma once

#include "base/config.h"
#include "devices/exchange.h"
#include "front/turn.h"

namespace relay {

// Takes the answer out of `exchange`, which has begun to be answered, and sends it to the turn's
// user. An answer that cannot be passed on leaves a page in the turn; one that breaks off after its
// head was sent ends the connection, so that the user does not take it for whole. False: the
// connection ends.
Awaitable<bool> relay_answer(Turn& turn, Exchange& exchange, UserStream& stream,
                             const FrontOptions& options);

} // namespace relay
