#include "CanFifo.h"

static unsigned int CanFifoFloorPow2(unsigned int n) {
    if (n == 0) return 0;
    unsigned int p = 1;
    while (p <= n / 2) p <<= 1;
    return p;
}

CanFifo::CanFifo(unsigned int cap) : buf_(CanFifoFloorPow2(cap)), host_(CanFifoFloorPow2(cap)), wr_(0), rdseen_(0), rd_(0), wrseen_(0), cap_(CanFifoFloorPow2(cap)) {}

CanFifo::~CanFifo() {}
