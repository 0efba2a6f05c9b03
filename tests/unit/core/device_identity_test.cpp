#include "core/device_identity.h"

#include <cstring>
#include <gmock/gmock.h>
#include <string>

#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/namespaces.h"

namespace {

const bool isPrivate = private_namespaces();

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string INCOMPLETE = "device info is incomplete, return error!\n";
const std::string NO_OBJECT = "get jsonrpc obj failed.\n";
const std::string FACTORY_COMMAND = "ubus call quorServer getInfo '{\"infoMask\":33}'";
const std::string FIRMWARE = "0123456789ABCDEF0123456789ABCDEF";
const std::string GOOD_FACTORY_INFO =
    R"({"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": ")" + FIRMWARE + "\"}";

// Gives a test the identity that the program starts with, and a `ubus` program that answers what
// the test says.
struct DeviceIdentity : testing::Test {
    DeviceIdentity() { answer(""); }
    ~DeviceIdentity() override {
        gDevInfo = initial;
        remove_file("/etc/config");
    }

    // What `ubus` prints from now on; `status` is what it exits with.
    static void answer(const std::string& text, int status = 0) {
        write_file(scratch_path("answer"), text);
        install_program("ubus", "printf '%s\\n' \"$@\" > " + scratch_path("arguments") + "\ncat " +
                                    scratch_path("answer") + "\nexit " + std::to_string(status) +
                                    "\n");
    }

    // The arguments of the last `ubus`, a line each.
    static std::string asked() { return read_file(scratch_path("arguments")); }

    static void configure(const std::string& options) {
        write_file("/etc/config/device_info", "config info 'info'\n" + options);
    }

    const device_info_t initial = gDevInfo;
    char out[8] = {'?', '?', '?', '?', '?', '?', '?', '?'};
    const std::string untouched = "????????";
    std::string held() const { return std::string(out, sizeof out); }
};

TEST_F(DeviceIdentity, StartsWithThePlaceholders) {
    EXPECT_STREQ(gDevInfo.hwVer, "9.9");
    EXPECT_STREQ(gDevInfo.swVer, "9.9.9");
    EXPECT_STREQ(gDevInfo.model, "default");
    EXPECT_EQ(gDevInfo.fwId, std::string(32, '0'));
    EXPECT_EQ(gDevInfo.mac, std::string(12, '0'));
    EXPECT_EQ(sizeof gDevInfo.hwVer + sizeof gDevInfo.swVer + sizeof gDevInfo.model, 3u * 64);
    EXPECT_EQ(sizeof gDevInfo.fwId, 64u);
    EXPECT_EQ(sizeof gDevInfo.mac, 13u);
}

// --- getDeviceIdByUbus ---

TEST_F(DeviceIdentity, DeviceIdComesFromTheCloudClientService) {
    answer(R"({"device_id": "8001"})");
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "8001????"); // no terminator
    EXPECT_EQ(asked(), "-t\n5\ncall\ncloudclient\nget_device_id\n");
}

TEST_F(DeviceIdentity, ADeviceIdOfExactlyTheSizeIsTakenWithoutATerminator) {
    answer(R"({"device_id": "12345678"})");
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "12345678");
}

TEST_F(DeviceIdentity, ALongerDeviceIdIsIncomplete) {
    answer(R"({"device_id": "123456789"})");
    log_capture log;
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("getDeviceIdByUbus", INCOMPLETE)));
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, AnAnswerWithoutDeviceIdIsIncomplete) {
    for (const char* text : {"{}", R"({"device_token": "x"})", "[]", "7"}) {
        answer(text);
        log_capture log;
        EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1) << text;
        EXPECT_THAT(log.lines(), ElementsAre(error_line("getDeviceIdByUbus", INCOMPLETE))) << text;
    }
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, ADeviceIdThatIsNoStringIsUsedAsItsJsonText) {
    answer(R"({"device_id": 8001})");
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "8001????");
    answer(R"({"device_id": null})");
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "null????");
}

TEST_F(DeviceIdentity, DeviceIdRefusesANullBufferAndASizeBelowOne) {
    log_capture log;
    remove_file(scratch_path("arguments"));
    EXPECT_EQ(getDeviceIdByUbus(nullptr, 8), -1);
    EXPECT_EQ(getDeviceIdByUbus(out, 0), -1);
    EXPECT_EQ(getDeviceIdByUbus(out, -1), -1);
    auto refusal = error_line("getDeviceIdByUbus", "params invalid\n");
    EXPECT_THAT(log.lines(), ElementsAre(refusal, refusal, refusal));
    EXPECT_EQ(asked(), "");
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, ADeviceIdQueryThatCannotRunNamesTheFactoryCommand) {
    log_capture log;
    fail_call failure("posix_spawn");
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1);
    EXPECT_TRUE(failure.happened());
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("getDeviceIdByUbus",
                                       "popen exe [" + FACTORY_COMMAND + "] failed\n")));
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, OutputThatIsNoJsonGivesNoDeviceId) {
    const std::string text = "Command failed: Not found";
    answer(text, 4);
    log_capture log;
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("jsonParseStr", "Parse buf failed," + text + ".\n"),
                            error_line("getDeviceIdByUbus", NO_OBJECT)));
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, AMissingUbusProgramGivesNoDeviceId) {
    remove_file(scratch_path("bin/ubus"));
    log_capture log;
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1);
    EXPECT_THAT(log.lines(), Contains(error_line("getDeviceIdByUbus", NO_OBJECT)));
    EXPECT_THAT(log.errors(), HasSubstr("ubus"));
}

TEST_F(DeviceIdentity, TheExitStatusOfUbusIsIgnored) {
    answer(R"({"device_id": "8001"})", 3);
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "8001????");
}

TEST_F(DeviceIdentity, OutputOf1024BytesOrMoreIsCut) {
    const std::string opening = R"({"device_id": "8001", "more": ")";
    for (size_t size : {1025u, 1026u, 4096u, 100000u}) {
        const std::string text = opening + std::string(size - opening.size() - 2, 'x') + "\"}";
        const std::string parsed = "Parse buf failed," + text.substr(0, 1024) + ".\n";
        answer(text);
        log_capture log;
        EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1) << size;
        EXPECT_THAT(log.lines(), ElementsAre(error_line("jsonParseStr", parsed),
                                             error_line("getDeviceIdByUbus", NO_OBJECT)))
            << size;
    }
}

// The buffer holds 1024 bytes and a terminator behind them.
TEST_F(DeviceIdentity, OutputOf1023Or1024BytesIsReadToItsLastByte) {
    const std::string ending = R"(", "device_id": "8001"})";
    const std::string opening = R"({"more": ")";
    for (size_t size : {1023u, 1024u}) {
        std::string text =
            opening + std::string(size - opening.size() - ending.size(), 'x') + ending;
        answer(text);
        memset(out, '?', sizeof out);
        EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0) << size;
        EXPECT_EQ(held(), "8001????") << size;

        text.back() = ' '; // the object does not end: all that was read appears in the log
        answer(text);
        log_capture log;
        EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), -1) << size;
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line("jsonParseStr", "Parse buf failed," + text + ".\n"),
                                error_line("getDeviceIdByUbus", NO_OBJECT)))
            << size;
    }
}

TEST_F(DeviceIdentity, OutputThatIsCutBehindItsObjectServes) {
    answer(R"({"device_id": "8001"})" + std::string(5000, ' '));
    EXPECT_EQ(getDeviceIdByUbus(out, sizeof out), 0);
    EXPECT_EQ(held(), "8001????");
}

// --- getFacinfoByUbus ---

TEST_F(DeviceIdentity, FactoryInfoGivesMacWithoutDashesAndFirmwareId) {
    answer(GOOD_FACTORY_INFO);
    log_capture log;
    EXPECT_EQ(getFacinfoByUbus(), 0);
    EXPECT_STREQ(gDevInfo.mac, "AABBCCDDEEFF");
    EXPECT_EQ(gDevInfo.fwId, FIRMWARE);
    EXPECT_EQ(asked(), "call\nquorServer\ngetInfo\n{\"infoMask\":33}\n");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DeviceIdentity, AMacWithColonsStaysWithinItsField) {
    answer(R"({"mac": "AA:BB:CC:DD:EE:FF", "fw_cur_id": "1"})");
    EXPECT_EQ(getFacinfoByUbus(), 0);
    EXPECT_STREQ(gDevInfo.mac, "AA:BB:CC:DD:");
    EXPECT_STREQ(gDevInfo.fwId, "1"); // the field behind is what it should be
    EXPECT_STREQ(gDevInfo.model, "default");
}

TEST_F(DeviceIdentity, AMacOfDashesAloneIsEmpty) {
    answer(R"({"mac": "-----------------", "fw_cur_id": "1"})");
    EXPECT_EQ(getFacinfoByUbus(), 0);
    EXPECT_STREQ(gDevInfo.mac, "");
}

TEST_F(DeviceIdentity, AMacOfAnyOtherLengthThan17LeavesBothFields) {
    for (const char* mac :
         {"\"AA-BB-CC-DD-EE-F\"", "\"AA-BB-CC-DD-EE-FF0\"", "\"\"", "null", "17"}) {
        answer(std::string(R"({"mac": )") + mac + R"(, "fw_cur_id": "1"})");
        log_capture log;
        EXPECT_EQ(getFacinfoByUbus(), -1) << mac;
        EXPECT_THAT(log.lines(), ElementsAre(error_line("getFacinfoByUbus", INCOMPLETE))) << mac;
        EXPECT_STREQ(gDevInfo.mac, initial.mac);
        EXPECT_STREQ(gDevInfo.fwId, initial.fwId);
    }
}

TEST_F(DeviceIdentity, FactoryInfoWithoutMacIsIncomplete) {
    answer(R"({"fw_cur_id": "1"})");
    log_capture log;
    EXPECT_EQ(getFacinfoByUbus(), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("getFacinfoByUbus", INCOMPLETE)));
    EXPECT_STREQ(gDevInfo.fwId, initial.fwId);
}

TEST_F(DeviceIdentity, ABadFirmwareIdLeavesTheNewMac) {
    for (const std::string& firmware :
         {std::string(R"("fw": "1")"), "\"fw_cur_id\": \"" + std::string(64, 'f') + "\""}) {
        gDevInfo = initial;
        answer(R"({"mac": "AA-BB-CC-DD-EE-FF", )" + firmware + "}");
        log_capture log;
        EXPECT_EQ(getFacinfoByUbus(), -1) << firmware;
        EXPECT_THAT(log.lines(), ElementsAre(error_line("getFacinfoByUbus", INCOMPLETE)));
        EXPECT_STREQ(gDevInfo.mac, "AABBCCDDEEFF");
        EXPECT_STREQ(gDevInfo.fwId, initial.fwId);
    }
}

TEST_F(DeviceIdentity, AFirmwareIdOf63CharactersFillsItsField) {
    const std::string firmware(63, 'f');
    answer(R"({"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": ")" + firmware + "\"}");
    EXPECT_EQ(getFacinfoByUbus(), 0);
    EXPECT_EQ(gDevInfo.fwId, firmware);
}

TEST_F(DeviceIdentity, AShorterFirmwareIdReplacesAllOfTheFormerOne) {
    answer(R"({"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": "42"})");
    EXPECT_EQ(getFacinfoByUbus(), 0);
    EXPECT_STREQ(gDevInfo.fwId, "42");
}

TEST_F(DeviceIdentity, AFactoryQueryThatFailsIsLogged) {
    log_capture log;
    {
        fail_call failure("posix_spawn");
        EXPECT_EQ(getFacinfoByUbus(), -1);
        EXPECT_TRUE(failure.happened());
    }
    answer("no json");
    EXPECT_EQ(getFacinfoByUbus(), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("getFacinfoByUbus",
                                                    "popen exe [" + FACTORY_COMMAND + "] failed\n"),
                                         error_line("jsonParseStr", "Parse buf failed,no json.\n"),
                                         error_line("getFacinfoByUbus", NO_OBJECT)));
}

// --- getCloudClientToken ---

TEST_F(DeviceIdentity, TokenComesFromTheCloudClientServiceAndIsZeroFilled) {
    answer(R"({"device_token": "abc"})");
    EXPECT_EQ(getCloudClientToken(out, sizeof out), 0);
    EXPECT_EQ(held(), std::string("abc\0\0\0\0\0", 8));
    EXPECT_EQ(asked(), "-t\n5\ncall\ncloudclient\nget_device_token\n");
}

TEST_F(DeviceIdentity, ATokenIsCutAndTerminated) {
    answer(R"({"device_token": "abcdefghij"})");
    EXPECT_EQ(getCloudClientToken(out, sizeof out), 0);
    EXPECT_EQ(held(), std::string("abcdefg\0", 8));
    answer(R"({"device_token": "ABCDEFG"})");
    EXPECT_EQ(getCloudClientToken(out, sizeof out), 0);
    EXPECT_STREQ(out, "ABCDEFG");
    char one[1] = {'?'};
    EXPECT_EQ(getCloudClientToken(one, sizeof one), 0);
    EXPECT_EQ(one[0], '\0');
}

TEST_F(DeviceIdentity, AnAnswerWithoutTokenLeavesTheBuffer) {
    answer(R"({"device_id": "8001"})");
    log_capture log;
    EXPECT_EQ(getCloudClientToken(out, sizeof out), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("getCloudClientToken", INCOMPLETE)));
    EXPECT_EQ(held(), untouched);
}

TEST_F(DeviceIdentity, ATokenQueryThatFailsLeavesTheBuffer) {
    log_capture log;
    {
        fail_call failure("posix_spawn");
        EXPECT_EQ(getCloudClientToken(out, sizeof out), -1);
        EXPECT_TRUE(failure.happened());
    }
    answer("?");
    EXPECT_EQ(getCloudClientToken(out, sizeof out), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("getCloudClientToken",
                                       "popen exe [ubus -t 5 call cloudclient get_device_token] "
                                       "failed\n"),
                            error_line("jsonParseStr", "Parse buf failed,?.\n"),
                            error_line("getCloudClientToken", NO_OBJECT)));
    EXPECT_EQ(held(), untouched);
}

// --- getters ---

TEST_F(DeviceIdentity, SysDevIdFillsAZeroedBuffer) {
    answer(R"({"device_id": "8001"})");
    EXPECT_EQ(sysDevIdGet(out, sizeof out), 0);
    EXPECT_EQ(held(), std::string("8001\0\0\0\0", 8));
}

TEST_F(DeviceIdentity, SysDevIdKeepsTheLastByteZero) {
    answer(R"({"device_id": "1234567"})");
    EXPECT_EQ(sysDevIdGet(out, sizeof out), 0);
    EXPECT_STREQ(out, "1234567");
}

TEST_F(DeviceIdentity, SysDevIdReportsTheFailedCall) {
    answer(R"({"device_id": "12345678"})");
    log_capture log;
    EXPECT_EQ(sysDevIdGet(out, sizeof out), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("getDeviceIdByUbus", INCOMPLETE),
                            error_line("sysDevIdGet",
                                       "E - -1 call getDeviceIdByUbus(buf, len -1) failed.")));
    EXPECT_EQ(held(), std::string(8, '\0'));
}

TEST_F(DeviceIdentity, SysDevIdRefusesANullBuffer) {
    log_capture log;
    EXPECT_EQ(sysDevIdGet(nullptr, 8), -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("sysDevIdGet", "Ensure buf failed.")));
}

TEST_F(DeviceIdentity, SysMacCopiesTheMacWithItsTerminator) {
    strcpy(gDevInfo.mac, "AABBCCDDEEFF");
    char mac[DEVICE_MAC_SIZE];
    memset(mac, '?', sizeof mac);
    EXPECT_EQ(sysMacGet(mac), 0);
    EXPECT_STREQ(mac, "AABBCCDDEEFF");
}

TEST_F(DeviceIdentity, SysFwIdNeverWritesTheLastByte) {
    strcpy(gDevInfo.fwId, "0123456789");
    EXPECT_EQ(sysFwIdGet(out, sizeof out), 0);
    EXPECT_EQ(held(), "0123456?");
}

TEST_F(DeviceIdentity, SysFwIdLeavesAShorterIdTerminatedInAZeroedBuffer) {
    strcpy(gDevInfo.fwId, "42");
    memset(out, 0, sizeof out);
    EXPECT_EQ(sysFwIdGet(out, sizeof out), 0);
    EXPECT_STREQ(out, "42");
}

TEST_F(DeviceIdentity, SysVerInfoGivesVersionsAndModel) {
    strcpy(gDevInfo.hwVer, "1.0");
    strcpy(gDevInfo.swVer, "4.5.6");
    memset(gDevInfo.model, 'm', sizeof gDevInfo.model); // one character too many
    version_info_t info;
    memset(&info, '?', sizeof info);
    EXPECT_EQ(sysVerInfoGet(&info), 0);
    EXPECT_STREQ(info.hwVer, "1.0");
    EXPECT_STREQ(info.swVer, "4.5.6");
    EXPECT_EQ(std::string(info.model), std::string(63, 'm'));
    EXPECT_EQ(sizeof info, 192u);
}

// --- adSysApiInit ---

const std::string ALL_OPTIONS = "\toption hw_version '1.20.300'\n"
                                "\toption sw_version '4.50.600'\n"
                                "\toption device_model 'RT-2100'\n";

TEST_F(DeviceIdentity, StartUpGathersEverything) {
    configure(ALL_OPTIONS);
    answer(GOOD_FACTORY_INFO);
    log_capture log;
    adSysApiInit();
    EXPECT_STREQ(gDevInfo.hwVer, "1.20.300");
    EXPECT_STREQ(gDevInfo.swVer, "4.50.600");
    EXPECT_STREQ(gDevInfo.model, "RT-2100");
    EXPECT_STREQ(gDevInfo.mac, "AABBCCDDEEFF");
    EXPECT_EQ(gDevInfo.fwId, FIRMWARE);
    EXPECT_THAT(log.lines(), ElementsAre(info_line("adSysApiInit", "Init OK.")));
}

TEST_F(DeviceIdentity, AnOptionShorterThanThePlaceholderKeepsItsTail) {
    configure("\toption hw_version '1'\n\toption sw_version '1.2'\n\toption device_model 'RT'\n");
    answer(GOOD_FACTORY_INFO);
    log_capture log;
    adSysApiInit();
    EXPECT_STREQ(gDevInfo.hwVer, "1.9");
    EXPECT_STREQ(gDevInfo.swVer, "1.2.9");
    EXPECT_STREQ(gDevInfo.model, "RTfault");
}

TEST_F(DeviceIdentity, AnOptionLargerThanItsFieldIsCut) {
    configure("\toption hw_version '1.0'\n\toption sw_version '" + std::string(64, '4') +
              "'\n\toption device_model '" + std::string(3000, 'R') + "'\n");
    answer(GOOD_FACTORY_INFO);
    log_capture log;
    adSysApiInit();
    EXPECT_EQ(gDevInfo.swVer, std::string(63, '4'));
    EXPECT_EQ(gDevInfo.model, std::string(63, 'R'));
    EXPECT_STREQ(gDevInfo.mac, "AABBCCDDEEFF");
}

struct missing_option {
    const char* options;
    const char* call;
    const char* hwVer;
    const char* swVer;
};

TEST_F(DeviceIdentity, AMissingOptionStopsStartUpBeforeTheFactoryInformationIsRead) {
    const missing_option CASES[] = {
        {"\toption sw_version '4.5.6'\n\toption device_model 'RT-2100'\n",
         "readUCI(\"device_info.info.hw_version\", gDevInfo.hwVer)", "9.9", "9.9.9"},
        {"\toption hw_version '1.2'\n\toption device_model 'RT-2100'\n",
         "readUCI(\"device_info.info.sw_version\", gDevInfo.swVer)", "1.2", "9.9.9"},
        {"\toption hw_version '1.2'\n\toption sw_version '4.5.6'\n",
         "readUCI(\"device_info.info.device_model\", gDevInfo.model)", "1.2", "4.5.6"},
    };
    for (const missing_option& missing : CASES) {
        gDevInfo = initial;
        configure(missing.options);
        answer(GOOD_FACTORY_INFO);
        remove_file(scratch_path("arguments"));
        log_capture log;
        adSysApiInit();
        EXPECT_THAT(log.lines(),
                    ElementsAre(error_line("adSysApiInit", std::string("E - -1 call ") +
                                                               missing.call + " failed.")));
        EXPECT_THAT(log.errors(), HasSubstr("do not find the option"));
        EXPECT_STREQ(gDevInfo.hwVer, missing.hwVer);
        EXPECT_STREQ(gDevInfo.swVer, missing.swVer);
        EXPECT_STREQ(gDevInfo.model, "default");
        EXPECT_STREQ(gDevInfo.mac, initial.mac);
        EXPECT_EQ(asked(), "");
    }
}

TEST_F(DeviceIdentity, StartUpWithoutFactoryInformationKeepsTheVersions) {
    configure(ALL_OPTIONS);
    answer("{}");
    log_capture log;
    adSysApiInit();
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("getFacinfoByUbus", INCOMPLETE),
                            error_line("adSysApiInit", "E - -1 call getFacinfoByUbus() failed.")));
    EXPECT_STREQ(gDevInfo.model, "RT-2100");
    EXPECT_STREQ(gDevInfo.mac, initial.mac);
    EXPECT_STREQ(gDevInfo.fwId, initial.fwId);
}

} // namespace
