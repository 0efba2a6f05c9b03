#include "control/start_up.h"

#include "control/ubus_control.h"
#include "core/log.h"
#include "queue/cloud_remote_mq.h"
#include "task/task_controller.h"

void swCloudRelayClientInit() {
    task_controller_init();
    int result = cloud_remote_mq_init();
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "cloud_remote_mq_init()");
        return;
    }
    result = ubus_init();
    if (result != 0) {
        LOG_ERROR(CALL_FAILED, result, "ubus_init()");
    }
}
