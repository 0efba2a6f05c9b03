#pragma once

#include <cstdint>

#include "core/cloud_cycle_record.h"
#include "core/session_notice.h"

// The heartbeat: a packet of DataType 2 without body, every 100 s, that proves to the relay that
// the device is alive. The relay answers with the same ID. Its state lives in the cloud cycle; the
// message queue books sends and replies through core/session_notice.h. Threads: the worker's.

// The 12-byte packet with that identifier and one zero byte behind it, in a fresh block that the
// caller frees; null, logged, when memory is short.
uint8_t* cloud_heartbeat_generate_pkt(uint16_t id);

// Queues a heartbeat when one is due. When too many stayed unanswered in a row, disconnects and
// asks the session to end instead. Called once a turn of the main loop.
void cloud_heartbeat_insert_into_mq(cloud_cycle_t* cycle);
