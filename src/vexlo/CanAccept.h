// Receive filter lists (VEXLO_FILTER) and the controller's acceptance filter, as pure functions:
// whether a list passes a frame, and the code, mask and mode that pass every frame a list passes
// with as few others as the controller allows. Every front end asks these, so that one list means
// the same setting everywhere.
//
// The controller (four code bytes ACR0-3 and four mask bytes, ACR0 the top byte of the 32-bit
// code, mask bit 1 = don't care) compares what it sees of a frame, whatever the frame's format:
//   single mode, standard: bits 31-21 ID.10-0, bit 20 RTR, bits 15-0 data bytes 1 and 2;
//   single mode, extended: bits 31-3 ID.28-0, bit 2 RTR;
//   dual mode, standard:   filter 1 bits 31-21 ID, bit 20 RTR, data byte 1 in bits 19-16 and 3-0;
//                          filter 2 bits 15-5 ID, bit 4 RTR;
//   dual mode, extended:   filter 1 bits 31-16 ID.28-13, filter 2 bits 15-0 ID.28-13.
// So it never tells the formats apart: a setting for standard frames lets some extended frames
// through and the other way round.
#pragma once

#include "utils.h"
#include "vexlo_ext.h"

struct CanAcceptSetting {
    U32 code;
    U32 mask;
    bool single;  // single filter mode (CAN_INIT FilterMode non-zero)
};

// False when a filter of the list has extended or remote outside -1..1 or inverse above 1, or the
// list is null with a count.
bool CanFiltersValid(const VEXLO_FILTER* filters, U32 count);

// True when the list passes the frame: an empty list passes all; otherwise any filter that passes
// it. A frame's identifier counts with its 11 or 29 bits. The list must be valid.
// Example: {id 0x123, mask 0x7FF, extended 0, remote -1} passes standard 0x123, not extended 0x123.
bool CanFiltersPass(const VEXLO_FILTER* filters, U32 count, const CAN_OBJ& frame);

// The setting that passes every frame the (valid) list passes and, of the settings that do, lets
// through the smallest fraction of standard plus fraction of extended frames (by identifier and
// remote bit; a frame that passes with some data bytes counts as passed). Single mode and dual
// mode are tried, dual mode with every split of the list into the two filters when the list is
// short, with splits grown from the closest filters otherwise. True when the setting passes
// exactly the frames of the list, for any data bytes.
// Example: {} -> code 0, mask FFFFFFFF, single, true. {id 0x123, mask 0x7FF, extended 0, remote 0}
// -> code 24600000, mask 0000FFFF, single, false (extended frames with ID.28-13 0x2460 also pass).
bool CanAcceptFit(const VEXLO_FILTER* filters, U32 count, CanAcceptSetting* out);

// The fraction of standard frames plus the fraction of extended frames the setting lets through
// (0 to 2), counted as CanAcceptFit counts it.
double CanAcceptMeasure(const CanAcceptSetting& s);
