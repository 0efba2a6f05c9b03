#include "schedule.h"

#include <algorithm>

#include "log.h"

namespace {

constexpr int64_t LONG_AGO = INT64_MIN / 2;

planned_pause plan(schedule* self, const configuration& config, int64_t now) {
    int64_t most = self->pauses.ceiling_ms;
    self->booting = false;
    self->due_at = now + backoff_draw(&self->pauses, &self->generator);
    if (self->hurried) {
        self->hurried = false;
        schedule_hurry(self, config, now);
    }
    return {self->due_at - now, most};
}

void count_failure(schedule* self, const configuration& config) {
    self->failures++;
    if (self->failures < config.failures_per_server || config.server_count < 2) {
        return;
    }
    const server& failed = config.servers[self->chosen];
    self->chosen = (self->chosen + 1) % config.server_count;
    log_info("%s: %lld failure%s in a row; %s is next", server_show(failed).text,
             static_cast<long long>(self->failures), self->failures == 1 ? "" : "s",
             server_show(config.servers[self->chosen]).text);
    self->failures = 0;
}

bool has_changed(const configuration& before, const configuration& config) {
    return before.server_count != config.server_count || before.enabled != config.enabled ||
           before.pause_min_ms != config.pause_min_ms ||
           before.pause_max_ms != config.pause_max_ms ||
           !std::equal(config.servers, config.servers + config.server_count, before.servers,
                       server_equal);
}

} // namespace

schedule schedule_begin(const configuration& config, uint64_t seed) {
    schedule self = {};
    self.generator = dice_of(seed);
    self.pauses = backoff_between(config.pause_min_ms, config.pause_max_ms);
    self.booting = true;
    self.hurried_at = LONG_AGO;
    return self;
}

planned_pause schedule_first(schedule* self, const configuration& config, int64_t now) {
    int64_t delay = dice_throw(&self->generator, config.boot_delay_ms);
    self->booting = false;
    self->due_at = now + delay;
    return {delay, config.boot_delay_ms};
}

planned_pause schedule_after_failure(schedule* self, const configuration& config, int64_t now) {
    count_failure(self, config);
    return plan(self, config, now);
}

planned_pause schedule_after_success(schedule* self, const configuration& config,
                                     const server* with, int64_t now) {
    size_t index = with == nullptr ? self->chosen : configuration_find(config, *with);
    self->chosen = index < config.server_count ? index : self->chosen;
    self->failures = 0;
    self->attempts = 0;
    backoff_reset(&self->pauses);
    return plan(self, config, now);
}

void schedule_hurry(schedule* self, const configuration& config, int64_t now) {
    int64_t allowed = std::max(now, self->hurried_at + config.connect_interval_ms);
    if (self->booting || allowed < self->due_at) {
        self->booting = false;
        self->due_at = allowed;
        self->hurried_at = allowed;
    }
}

void schedule_configure(schedule* self, const configuration& before, const configuration& config,
                        int64_t now) {
    size_t index = configuration_find(config, before.servers[self->chosen]);
    bool listed = index < config.server_count;
    self->chosen = listed ? index : 0;
    self->failures = listed ? self->failures : 0;
    if (has_changed(before, config)) {
        self->pauses = backoff_between(config.pause_min_ms, config.pause_max_ms);
        self->due_at = std::min(self->due_at, now);
    }
}
