// Library-internal knobs (hidden from the exported interface); unit tests link the static build.
#pragma once

// The cycle's four last-run times are process-wide. Tests start each scenario from zero.
void ObdCycleTimersReset();

constexpr unsigned int OBD_SERIAL_BUFFER_SIZE = 1024;
constexpr unsigned int OBD_BLACKBOX_BUF_SIZE = 4096;
constexpr unsigned int OBD_BLACKBOX_HEAD_SIZE = 12;
constexpr unsigned int OBD_CYCLE_PERIOD_MS = 100;
