// Library-internal knobs (hidden from the exported interface); unit tests link the static build.
#pragma once

#include <cstdint>

// The cycle's four last-run times are process-wide. Tests start each scenario from zero.
void ObdCycleTimersReset();

// One axis of a three-axis accelerometer sample as the analyser takes it.
uint16_t ObdConvertGSensorAxis(uint16_t v);

constexpr unsigned int OBD_SERIAL_BUFFER_SIZE = 1024;
constexpr unsigned int OBD_BLACKBOX_BUF_SIZE = 4096;
constexpr unsigned int OBD_BLACKBOX_HEAD_SIZE = 12;
constexpr unsigned int OBD_CYCLE_PERIOD_MS = 100;

// The alarm broadcast's start times and the last upgrade percent broadcast are process-wide.
// Tests start each scenario from their load-time values.
void ObdAlarmStartTimesReset();
void ObdUpgradePercentReset();

// A black-box item word: id in bits 0-7, value x 100 (truncated, negative as 0) in bits 8-31.
uint32_t ObdBlackboxWord(int32_t id, float value);
