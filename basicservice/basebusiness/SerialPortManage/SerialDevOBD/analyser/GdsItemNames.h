// Names of the OBD data items, for tools and logs that show the data stream or the OBD data table
// to a person: the one place that says which item is which.
//
// Indexed by item index (0-58), which is the box's data id - 1 and the position in
// _OBD_DataTable_t. Only the items the analyser interprets have a name; the box carries the
// others without a meaning known here, and `name` is null for them (show them by their id).
#pragma once

#include "GdsLogicAnalyser.h"

struct GdsItemName_t {
    const char* name;  // snake_case, matching the OBD_IDX_* constant; null when unnamed
    const char* unit;  // "" when the item has no unit or it is the box's own
};

constexpr GdsItemName_t kGdsItemNames[OBD_ITEM_COUNT] = {
    {"mileage", ""},          // 0: total mileage, the box's distance unit
    {"gross", ""},            // 1: cumulative fuel reading (fallback fuel source)
    {"mileage2", ""},         // 2: second distance reading
    {"fuel", ""},             // 3: cumulative fuel reading (preferred)
    {nullptr, ""},            // 4
    {nullptr, ""},            // 5
    {"engine_speed", "rpm"},  // 6
    {"speed", "km/h"},        // 7
    {"battery_volt", "V"},    // 8
    {"coolant_temp", "C"},    // 9
    {nullptr, ""},            // 10
    {nullptr, ""},            // 11
    {nullptr, ""},            // 12
    {nullptr, ""},            // 13
    {"accelerator", ""},      // 14: accelerator pedal
    {"clutch", ""},           // 15: > 0 pressed
    {"brake", ""},            // 16: > 0 braking
    {"running_brake", ""},    // 17: brake signal of the running-with-brake check
    {nullptr, ""},            // 18
    {nullptr, ""},            // 19
    {nullptr, ""},            // 20
    {nullptr, ""},            // 21
    {nullptr, ""},            // 22
    {nullptr, ""},            // 23
    {nullptr, ""},            // 24
    {nullptr, ""},            // 25
    {nullptr, ""},            // 26
    {nullptr, ""},            // 27
    {nullptr, ""},            // 28
    {nullptr, ""},            // 29
    {nullptr, ""},            // 30
    {nullptr, ""},            // 31
    {nullptr, ""},            // 32
    {nullptr, ""},            // 33
    {nullptr, ""},            // 34
    {nullptr, ""},            // 35
    {nullptr, ""},            // 36
    {nullptr, ""},            // 37
    {nullptr, ""},            // 38
    {nullptr, ""},            // 39
    {nullptr, ""},            // 40
    {nullptr, ""},            // 41
    {nullptr, ""},            // 42
    {nullptr, ""},            // 43
    {nullptr, ""},            // 44
    {nullptr, ""},            // 45
    {nullptr, ""},            // 46
    {nullptr, ""},            // 47
    {nullptr, ""},            // 48
    {nullptr, ""},            // 49
    {nullptr, ""},            // 50
    {nullptr, ""},            // 51
    {nullptr, ""},            // 52
    {nullptr, ""},            // 53
    {nullptr, ""},            // 54
    {nullptr, ""},            // 55
    {nullptr, ""},            // 56
    {"oil_temp", ""},         // 57
    {nullptr, ""},            // 58
};

// The item's name, or null for an unnamed item or an index outside the table.
constexpr const char* GdsItemName(int index) {
    return index >= 0 && index < OBD_ITEM_COUNT ? kGdsItemNames[index].name : nullptr;
}

namespace gds_item_names_detail {
constexpr bool Same(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return a == b;
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}
}  // namespace gds_item_names_detail

// The names sit at the indices the analyser reads them from.
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_MILEAGE), "mileage"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_GROSS), "gross"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_MILEAGE2), "mileage2"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_FUEL), "fuel"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_ENGINE_SPEED), "engine_speed"),
              "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_SPEED), "speed"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_BATTERY_VOLT), "battery_volt"),
              "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_COOLANT_TEMP), "coolant_temp"),
              "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_ACCELERATOR), "accelerator"),
              "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_CLUTCH), "clutch"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_BRAKE), "brake"), "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_RUNNING_BRAKE), "running_brake"),
              "names");
static_assert(gds_item_names_detail::Same(GdsItemName(OBD_IDX_OIL_TEMP), "oil_temp"), "names");
