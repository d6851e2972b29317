// Bit timing of the adapter's CAN controller (16 MHz clock), as pure functions: the two bus timing
// bytes for a bit rate and the bit rate of two timing bytes. Every front end asks these, so that a
// rate means the same bytes everywhere.
//
// BTR0: bits 7-6 sync jump width - 1, bits 5-0 prescaler BRP. BTR1: bit 7 three samples, bits 6-4
// TSEG2 - 1, bits 3-0 TSEG1 - 1. A time quantum is 2 (BRP + 1) / 16 MHz; a bit is 1 + TSEG1 + TSEG2
// quanta, sampled after 1 + TSEG1 of them.
#pragma once

#include "utils.h"

// The timing bytes for `rate` bit/s. The usual rates keep their customary bytes (1M 00:14, 800k
// 00:16, 500k 00:1C, 250k 01:1C, 125k 03:1C, 100k 04:1C, 50k 09:1C, 20k 18:1C, 10k 31:1C). Any
// other rate is searched among the settings of 8 to 25 quanta with TSEG2 at least 2 whose rate is
// within 1% of it; above 800 kbit/s only sample points from 75% to 87.5% count. Of those it takes
// the sample point nearest 87.5% (on a tie the earlier one), then the smallest rate error, then
// the most quanta; sync jump width 1, one sample. True with the bytes set. False when nothing comes
// within 1%: *below and *above then hold the nearest rates the controller reaches exactly (rounded
// to the bit/s) under and over `rate`, 0 where there is none.
// Example: 83333 -> true, 05:1C (16 quanta of 12 clocks, 87.5%); 950000 -> false, below 888889,
// above 1000000.
bool CanTimingForRate(U32 rate, U8* btr0, U8* btr1, U32* below, U32* above);

// The bit rate (rounded to the bit/s) and the sample point in tenths of a percent of two timing
// bytes. Example: 00:1C -> 500000, 875.
void CanRateForTiming(U8 btr0, U8 btr1, U32* rate, U32* permille);
