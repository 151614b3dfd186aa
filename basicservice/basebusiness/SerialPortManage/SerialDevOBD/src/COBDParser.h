// Payload parsers of the box's answers; base of the link controller. Holds no data.
//
// Each parser takes the payload (the bytes after the command code), its length and the record or
// verdict to fill, and returns 0, or -1 when a pointer is null or the payload lacks the field the
// answer cannot do without (count, status, engine code).
//
// The payload is untrusted. A count, length or text length taken from it never makes a parser
// read past `len` or write past its record. The rule for what does not fit is "keep what fits,
// drop the excess": counts are capped at the record's 3 entries and at the entries the payload
// really holds, data-scan entries at 32 bytes; `num` then tells how many entries were stored, so
// a reader of the record can trust it. A text is the exception: a cut text would be a wrong text,
// so a text too long for its field, or running past the payload, leaves the field empty (as the
// box's protocol does for a text too long for its field).
#pragma once

#include "ObdTypes.h"

class COBDParser {
  public:
    COBDParser() {}
    ~COBDParser() {}

    // Hardware-version answer: texts HwName, DevSerialNum, HWVer, VerDate, DevType, each a
    // uint16 length (MSB first) and that many bytes. Leaves the software fields as they were.
    int OBD_ParserHwVer(char* payload, int len, _OBD_Version_t* out);
    // Software-version answer: texts BootVer, DLVer, DiagSWVer. Leaves the hardware fields.
    int OBD_ParserSwVer(char* payload, int len, _OBD_Version_t* out);
    // Engine answer: uint16 engine code; later bytes are ignored.
    int OBD_ParserEngineInfo(char* payload, int len, _OBD_Engine_t* out);
    // Scan-time-level answer: uint8 count, then entries {uint8 level, uint32 time}.
    int OBD_ParserScanTimeLevel(char* payload, int len, _OBD_ScanTimeLevel_t* out);
    // Data-scan-level answer: uint8 count, then entries {uint8 level, uint8 n, n bytes}.
    int OBD_ParserDataStreamLevelInfo(char* payload, int len, _OBD_DataStreamLevel_t* out);
    // Upgrade-step answer: status byte; 4 (and 0) mean accepted and give *result 0, any other
    // status is the box's refusal and is handed back in *result.
    int OBD_ParserUpgAck(char* payload, int len, int* result);
    // One status byte, exactly; *result gets it (0 = success).
    int OBD_ParserCommonPack(char* payload, int len, int* result);
    int OBD_ParserCfgEngineAck(char* payload, int len, int* result);
    // Answers without a verdict: *result 0.
    int OBD_ParserStartTsAck(char* payload, int len, int* result);
    int OBD_ParserCloseTsAck(char* payload, int len, int* result);
    int OBD_ParserCfgSTLAck(char* payload, int len, int* result);
    int OBD_ParserCfgDSLAck(char* payload, int len, int* result);
};
