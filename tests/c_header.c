/* The public headers compiled as C: records keep their sizes and the calls link. */
#include <stddef.h>
#include <stdio.h>

#include "vexlo.h"
#include "vexlo_ext.h"

_Static_assert(sizeof(CAN_OBJ) == 24, "CAN_OBJ");
_Static_assert(offsetof(CAN_OBJ, Data) == 13, "CAN_OBJ.Data");
_Static_assert(sizeof(CAN_INIT) == 16, "CAN_INIT");
_Static_assert(sizeof(CAN_ERR) == 8, "CAN_ERR");
_Static_assert(sizeof(CAN_STAT) == 12, "CAN_STAT");
_Static_assert(offsetof(CAN_INFO, IdText) == 31, "CAN_INFO.IdText");

int main(void) {
    CAN_ERR err;
    /* Nothing is open: the calls answer with their results, not a crash. */
    if (VCI_Debug(0xFFFFFFFFu) != 0xFFFFFFEFu) return 1;
    VCI_Debug(0);
    if (VCI_ReadErrInfo(4, 40, 0, &err) != 0) return 2;
    if (VCI_GetReceiveNum(4, 0, 0) != 0) return 3;
    if (VCI_CloseDevice(4, 5) != 1) return 4;
    gdbg = 0;
    puts("c header ok");
    return 0;
}
