#pragma once

#include <cstddef>

// Who this device is: versions and model from UCI, MAC address and firmware id from the factory
// information service, device id and token from the cloud client service. The services are asked
// through the `ubus` command-line tool.
//
// Threads: gDevInfo is written by adSysApiInit alone, on the main thread before any worker exists,
// and read afterwards without a lock. Everything else works on the caller's buffers: any thread.

constexpr size_t DEVICE_TEXT_SIZE = 64;
constexpr size_t DEVICE_MAC_SIZE = 13; // 12 hexadecimal digits and the terminator

// Every field is terminated text. The initial values stand until start-up replaces them.
struct device_info_t {
    char hwVer[DEVICE_TEXT_SIZE];
    char swVer[DEVICE_TEXT_SIZE];
    char model[DEVICE_TEXT_SIZE];
    char fwId[DEVICE_TEXT_SIZE];
    char mac[DEVICE_MAC_SIZE];
};

extern device_info_t gDevInfo;

struct version_info_t {
    char hwVer[DEVICE_TEXT_SIZE];
    char swVer[DEVICE_TEXT_SIZE];
    char model[DEVICE_TEXT_SIZE];
};

// Fills gDevInfo, step by step; the first step that fails is logged and ends it, and its field and
// all later ones keep their initial values for the life of the process.
void adSysApiInit();

// Asks the cloud client service for the device id. Copies its characters to `dst` without a
// terminator: the caller zeroes `dst` first. Returns 0, or -1 for a null `dst`, a size below 1, no
// answer, or an id of more than `size` characters.
int getDeviceIdByUbus(char* dst, int size);

// Asks the factory information service for MAC address and firmware id and stores them in
// gDevInfo. Returns 0 or -1; a bad firmware id leaves the new MAC address in place.
int getFacinfoByUbus();

// Asks the cloud client service for the device token: at most `size` - 1 characters, the rest of
// `dst` zeroed. `size` is at least 1. Returns 0, or -1 with `dst` untouched.
int getCloudClientToken(char* dst, int size);

// Zeroes `buf` and fills it with the device id, at most `len` - 1 characters. Returns 0 or -1.
int sysDevIdGet(char* buf, int len);

// Copies the MAC address with its terminator; `dst` holds DEVICE_MAC_SIZE bytes. Returns 0.
int sysMacGet(char* dst);

// Copies at most `len` - 1 characters of the firmware id into `dst`, which the caller has zeroed;
// `len` is at least 1, and the last of the `len` bytes is never written. Returns 0.
int sysFwIdGet(char* dst, int len);

// Hardware version, software version and model. Nothing asks for them yet. Returns 0.
int sysVerInfoGet(version_info_t* info);
