#include "task/task_controller.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

#include "core/cloud_cycle_record.h"
#include "core/log.h"
#include "core/mutex_guard.h"
#include "core/result.h"
#include "session/cloud_cycle.h"
#include "session/main_loop.h"

namespace {

constexpr time_t RESTART_PAUSE_S = 3; // for the old worker to leave its session and clean up
constexpr int RELICS_LIMIT = 2;
constexpr useconds_t RELIC_LOOK_US = 20 * 1000;
constexpr size_t THREAD_NAME_SIZE = 128;

struct task_controller_t {
    cloud_cycle_t* cloudCycle; // of the current session; null between sessions
    pthread_mutex_t taskLock;  // recursive; guards cloudCycle and taskRunning
    int taskRunning;           // 1 while a task is considered started
    unsigned cycleHndIndex;    // names the workers; guarded by taskLock as well
    pthread_t lCloudBrdTask;   // the last worker, detached
    int relics;                // workers that were let go and have not ended; guarded by taskLock
};

task_controller_t task = {};

// Destroys the controller's cycle; without one only says so.
int _swCloudRelayClientParamsDeinit() {
    mutex_guard guard(&task.taskLock);
    cloud_cycle_destroy(task.cloudCycle);
    task.cloudCycle = nullptr;
    task.taskRunning = 0;
    return 0;
}

// A worker's end: it destroys its own cycle, and only if no newer session has taken its place is
// the controller idle then. The cycle leaves the controller's sight before it is destroyed, so that
// no stop reaches it half gone.
void _end_task(cloud_cycle_t* cycle) {
    bool isRelic = false;
    {
        mutex_guard guard(&task.taskLock);
        isRelic = task.cloudCycle != cycle;
        if (!isRelic) {
            task.cloudCycle = nullptr;
        }
    }
    cloud_cycle_destroy(cycle);
    mutex_guard guard(&task.taskLock);
    task.relics -= isRelic;
    if (task.cloudCycle == nullptr) {
        task.taskRunning = 0;
    }
}

void _name_worker() {
    char name[THREAD_NAME_SIZE] = {};
    {
        mutex_guard guard(&task.taskLock);
        snprintf(name, sizeof name, "cycleHnd_%d", static_cast<int>(task.cycleHndIndex));
        task.cycleHndIndex++;
    }
    pthread_detach(pthread_self());
    cloud_name_thread(name);
}

void _swCloudRelayClientTask(cloud_cycle_t* cycle) {
    _name_worker();
    cloud_cycle_start(cycle);
    _end_task(cycle);
    LOG_INFO("[CRC:] CloudRelayClient task exit.");
}

void* _swCloudRelayClientTaskEntry(void* cycle) {
    _swCloudRelayClientTask(static_cast<cloud_cycle_t*>(cycle));
    return nullptr;
}

int _swCloudRelayClientParamsInit() {
    cloud_cycle_t* cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
    if (cycle == nullptr) {
        LOG_ERROR("[CRC:] Cloud cycle malloc error");
        return CLOUD_NO_MEMORY;
    }
    task.cloudCycle = cycle;
    return CLOUD_OK;
}

// Returns 0 or pthread_create's error. The worker takes none of the event loop's signals: their
// handler writes to the loop's pipe, and could change errno between a call of the worker and its
// look at it.
int _create_worker() {
    sigset_t ofEventLoop;
    sigemptyset(&ofEventLoop);
    sigaddset(&ofEventLoop, SIGCHLD);
    sigaddset(&ofEventLoop, SIGINT);
    sigaddset(&ofEventLoop, SIGTERM);
    sigset_t former;
    pthread_sigmask(SIG_BLOCK, &ofEventLoop, &former);
    int result =
        pthread_create(&task.lCloudBrdTask, nullptr, _swCloudRelayClientTaskEntry, task.cloudCycle);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return result;
}

// Makes the cycle and its worker. The worker is born under the lock: even one that ends at once
// finds the task started before it marks it ended.
int _create_task(const char* ipAddr, uint32_t port) {
    constexpr char NAME[] = "_swCloudRelayClientTaskInit";
    int result = _swCloudRelayClientParamsInit();
    if (result != 0) {
        LOG_ERROR_AS(NAME, CALL_FAILED, result, "_swCloudRelayClientParamsInit()");
        return result;
    }
    result = cloud_cycle_init(ipAddr, static_cast<int>(port), task.cloudCycle);
    if (result != 0) {
        LOG_ERROR_AS(NAME, CALL_FAILED, result, "cloud_cycle_init(ipAddr, port, cloudCycle)");
        return result;
    }
    result = _create_worker();
    if (result != 0) {
        LOG_ERROR_AS(NAME, CALL_FAILED, result,
                     "pthread_create(&lCloudBrdTask, NULL, _swCloudRelayClientTaskEntry, NULL)");
        return TASK_THREAD_FAILED;
    }
    task.taskRunning = 1;
    return CLOUD_OK;
}

// Refuses port 0, unlike swCloudRelayClientTaskStart, whose check lets it through.
int _swCloudRelayClientTaskInit(const char* ipAddr, uint32_t port) {
    ENSURE(NULL != ipAddr && port <= 65535 && port > 0, CLOUD_BAD_ARGUMENT);
    LOG_INFO("[CRC:] Start cloudRelayClient task.");
    srand(static_cast<unsigned>(time(nullptr)));
    mutex_guard guard(&task.taskLock);
    int result = _create_task(ipAddr, port);
    if (result != 0) {
        _swCloudRelayClientParamsDeinit();
        LOG_ERROR("[CRC:] Create cloudRelayClient task failed");
        return result;
    }
    LOG_INFO("[CRC:] Create cloudRelayClient task ok");
    return CLOUD_OK;
}

int _swCloudRelayClientTaskStop() {
    LOG_INFO("[CRC:] Stop cloudRelayClient-task");
    mutex_guard guard(&task.taskLock);
    // Without a cycle the worker is past its session already, cleaning up.
    return task.cloudCycle == nullptr ? CLOUD_OK : cloud_cycle_stop(task.cloudCycle);
}

// Lets a worker go that is still in its session: its waits end, it keeps its cycle and cleans up
// after itself. False when two earlier workers that were let go have not ended.
bool _let_go_of_worker() {
    mutex_guard guard(&task.taskLock);
    if (task.cloudCycle == nullptr) {
        return true;
    }
    if (task.relics >= RELICS_LIMIT) {
        return false;
    }
    cloud_cycle_let_go(task.cloudCycle);
    task.cloudCycle = nullptr;
    task.relics++;
    return true;
}

// Waits the full 3 s: restarts the wait when a signal interrupts it.
void _pause() {
    timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += RESTART_PAUSE_S;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

// After this no session is the controller's. Waits when two earlier workers have not ended yet: the
// resolver is the one wait that cannot be cut short, and must not pile up workers.
void _let_go() {
    while (!_let_go_of_worker()) {
        usleep(RELIC_LOOK_US);
    }
}

int _swCloudRelayClientTaskRestart(const char* ipaddr, uint32_t port) {
    LOG_INFO("[CRC:] Restart cloudRelayClient-task on cfg [%s:%d].", ipaddr,
             static_cast<int>(port));
    int result = _swCloudRelayClientTaskStop();
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "_swCloudRelayClientTaskStop()");
        _let_go(); // its cycle is the worker's to destroy
    } else {
        _pause();
        _let_go();
        result = _swCloudRelayClientTaskInit(ipaddr, port);
        if (result == 0) {
            LOG_INFO("[CRC:] ReStart cloudRelayClient-task ok");
            return CLOUD_OK;
        }
        LOG_ERROR(CALL_FAILED, result, "_swCloudRelayClientTaskInit(ipAddr, port)");
    }
    _swCloudRelayClientParamsDeinit();
    LOG_ERROR("[CRC:] Create cloud-brd-task failed");
    return CLOUD_ERROR;
}

bool _is_running() {
    mutex_guard guard(&task.taskLock);
    return task.taskRunning == 1;
}

} // namespace

void task_controller_init() {
    recursive_mutex_init(&task.taskLock);
}

int cloudRelayClientReload(const char* addrStr, uint32_t port) {
    if (addrStr == nullptr) {
        LOG_ERROR("[CRC_SLP] Invalid param. addr is %s and port %d", "invalid",
                  static_cast<int>(port));
        return TASK_NO_ADDRESS;
    }
    if (port == 0) {
        int result = swCloudRelayClientTaskStop();
        if (result != 0) {
            LOG_ERROR(CALL_FAILED, result, "swCloudRelayClientTaskStop()");
        } else {
            LOG_INFO("[CRC_SLP] Disconnect relay-server ok.");
        }
        return result;
    }
    int result = swCloudRelayClientTaskStart(addrStr, port);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "swCloudRelayClientTaskStart(addrStr, port)");
    } else {
        LOG_INFO("[CRC_SLP] Connect relay-server(%s:%d) ok.", addrStr, static_cast<int>(port));
    }
    return result;
}

int swCloudRelayClientTaskStart(const char* ipaddr, uint32_t port) {
    if (ipaddr == nullptr || port > CLOUD_MAX_PORT) {
        LOG_ERROR(ENSURE_FAILED, "NULL != ipaddr && port <= 65535 && port >= 0");
        return CLOUD_BAD_ARGUMENT;
    }
    if (!_is_running()) {
        int result = _swCloudRelayClientTaskInit(ipaddr, port);
        if (result != 0) {
            LOG_ERROR(CALL_FAILED, result, "_swCloudRelayClientTaskStart(ipaddr, port)");
            return TASK_START_FAILED;
        }
        return CLOUD_OK;
    }
    int result = _swCloudRelayClientTaskRestart(ipaddr, port);
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "_swCloudRelayClientTaskRestart(ipaddr, port)");
        return TASK_RESTART_FAILED;
    }
    return CLOUD_OK;
}

int swCloudRelayClientTaskStop() {
    if (!_is_running()) {
        return CLOUD_OK;
    }
    int result = _swCloudRelayClientTaskStop();
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "_swCloudRelayClientTaskStop()");
        return TASK_STOP_FAILED;
    }
    return CLOUD_OK;
}
