// What a device's session uses of the relay around it. Owned by the relay; outlives the sessions.
#pragma once

#include "base/clients.h"
#include "base/config.h"
#include "base/deadlines.h"
#include "base/memory_budget.h"
#include "base/metrics.h"

#include <string>

namespace relay {

class DeviceSession;
struct Hello;

// The listener's side of a session.
class DeviceDirectory {
public:
    virtual ~DeviceDirectory() = default;
    // Empty when the device may come in, else why not.
    virtual std::string objection(const Hello& hello) const = 0;
    virtual bool is_draining() const = 0;
    virtual void admitted(DeviceSession& session) = 0;
    virtual void ended(DeviceSession& session) = 0;
};

struct DeviceServices {
    const DeviceOptions& options;
    Deadlines& deadlines;
    MemoryBudget& budget;
    Clients& clients;
    Metrics& metrics;
    DeviceDirectory& directory;
    std::chrono::seconds hold; // how long one answer may hold up a device in all
};

} // namespace relay
