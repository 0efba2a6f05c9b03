# Tests of programs that are built for another CPU and run by an emulator, CMake's
# CMAKE_CROSSCOMPILING_EMULATOR.

# runnable(RESULT TARGET): the file by which a test starts that program. Where an emulator runs it,
# a script that says so.
function(runnable result target)
    set(${result} $<TARGET_FILE:${target}> PARENT_SCOPE)
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        set(launcher ${CMAKE_CURRENT_BINARY_DIR}/launch_${target})
        list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
        file(GENERATE OUTPUT ${launcher}
            CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${target}> \"$@\"\n"
            FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
        set(${result} ${launcher} PARENT_SCOPE)
    endif()
endfunction()

# What qemu-user cannot do, by reason. Everything else is run.
set(not_emulated
    # It does not tell which device a socket is bound to.
    SelectDevice.APlainConnectThatSucceedsLeavesOurAddressAndBindsNothing
    TwoUplinks.ARelayBehindTheFirstIsReachedWithoutBinding
    TwoUplinks.ARelayBehindTheSecondIsReachedThroughItAndTheDeviceReserved
    TwoUplinks.APlainConnectThatTimesOutIsFollowedByTheSearchAsWell
    TwoUplinks.TheReservedDeviceIsUsedNextWithoutASearch
    TwoUplinks.TheWalkGoesOnPastADeviceThatDoesNotConnect
    # What is resident is its own memory as well.
    remote_mq_response.of_20_megabytes_costs_20_megabytes
    answer_block.of_64_megabytes_grows_in_place
    # Its threads are so slow that a line may be lost, as it should be then.
    OfEveryKind/SlowOutput.*
    # It does not know TCP_INFO.
    ConnectedSocket.RecordsOfALargePacketShareSegments
    # The query is not seen to end there. HelperProgram kills whole groups there, and passes.
    TaskLetGoTest.InAnIdentityQueryThatHangsEndsWithinASecond
    # It does not pass on a limit of the address space.
    answer_block.uses_a_limited_address_space_to_its_end
    PacketAllocate.IsNullForALengthBeyondTheProcessLimit
    RelayPacket.AClaimBeyondTheProcessLimitIsRefused)
if(CMAKE_CXX_BYTE_ORDER STREQUAL BIG_ENDIAN)
    list(APPEND not_emulated
        # It shows /proc/net/tcp as the machine's kernel prints it, in the other byte order.
        SessionWatch.AConnectionToAnExpectedPortIsSeenAndItsEndToo
        SessionWatch.AnAddressThatLeftTheInterfacesCutsTheConnectionOff
        # It reads /proc/net/route itself, to turn the addresses, and breaks on odd rows.
        RouteTable.ANameOf63CharactersFillsItsField
        RouteTable.GarbageIsReadToItsEnd)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES mips)
    list(APPEND not_emulated
        # It passes on a connection's error by the machine's number, which here means another.
        CloudSocket.ARefusedConnectIsReportedWithItsErrno
        ConnectNonblock.ReportsARefusal
        SelectDevice.AReservedDeviceThatIsGoneIsForgottenAndTheListWalkedOnTheSameSocket
        TwoUplinks.ADeviceThatAnswersNothingIsNotTakenForConnected
        remote_mq_request.that_is_refused_fails_and_stays_pending_until_its_time_is_up
        web_server.refuses_with_the_systems_error
        # /proc tells the machine's number of a signal, and SIGCHLD has another one here.
        TaskControllerTest.AWorkerLeavesSignalsOfTheEventLoopToTheMainThread)
endif()
list(JOIN not_emulated ":" not_emulated)

# discover_tests(PROGRAM PREFIX): its tests, each in a process of its own. To start one takes an
# emulator a second: there a program's tests run in one process.
function(discover_tests program prefix)
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        add_test(NAME ${program} COMMAND ${program} --gtest_brief=1 --gtest_filter=-${not_emulated})
        set_tests_properties(${program} PROPERTIES TIMEOUT 600)
    else()
        gtest_discover_tests(${program} TEST_PREFIX "${prefix}"
            DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
    endif()
endfunction()
