#include "CanNotes.h"

#include <cstring>

// Linux CAN error classes (Id) and controller details (Data[1]).
enum : U32 {
    kErrLostArb = 0x002,
    kErrCrtl = 0x004,
    kErrProt = 0x008,
    kErrBusError = 0x080,
    kErrCnt = 0x200,
};
enum : U8 {
    kCrtlRxOverflow = 0x01,
    kCrtlRxWarning = 0x04,
    kCrtlTxWarning = 0x08,
    kCrtlRxPassive = 0x10,
    kCrtlTxPassive = 0x20,
};

void CanNoteFrame(const CanNote& note, CAN_OBJ* obj) {
    memset(obj, 0, sizeof(*obj));
    obj->TimeStamp = note.stamp;
    obj->TimeStampValid = 1;
    obj->DataLength = 8;
    switch (note.code) {
    case CAN_NOTE_LOST:
    case 1:  // data overrun
        obj->Id = kErrCrtl;
        obj->Data[1] = kCrtlRxOverflow;
        break;
    case 2:  // error warning
        obj->Id = kErrCrtl;
        obj->Data[1] = kCrtlRxWarning | kCrtlTxWarning;
        break;
    case 4:  // error passive: error code capture, receive and transmit error counters
        obj->Id = kErrCrtl | kErrCnt;
        obj->Data[1] = kCrtlRxPassive | kCrtlTxPassive;
        obj->Data[6] = note.data[2];
        obj->Data[7] = note.data[1];
        break;
    case 8:  // arbitration lost, at the captured bit
        obj->Id = kErrLostArb;
        obj->Data[0] = note.data[0];
        break;
    default:  // 16: bus error
        obj->Id = kErrProt | kErrBusError;
        break;
    }
}
