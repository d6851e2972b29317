cmake_policy(SET CMP0057 NEW)
# Fails when the library exports anything but the VCI_* calls, gdbg and the vexlo_* extension calls,
# or misses one of them.
execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(found "")
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^.* " "" sym "${line}")
  if(NOT sym MATCHES "^(VCI_[A-Za-z]+|gdbg|vexlo_[a-z_]+)$")
    message(FATAL_ERROR "unexpected exported symbol: ${sym}")
  endif()
  list(APPEND found ${sym})
endforeach()
foreach(want VCI_OpenDevice VCI_CloseDevice VCI_InitCAN VCI_StartCAN VCI_ResetCAN VCI_Transmit VCI_Receive
        VCI_GetReceiveNum VCI_ClearBuffer VCI_ReadBoardInfo VCI_ReadCANStatus VCI_GetReference VCI_SetReference
        VCI_ReadErrInfo VCI_Debug gdbg vexlo_receive_fd vexlo_get_stats vexlo_version vexlo_receive vexlo_present
        vexlo_timing_for_rate vexlo_rate_for_timing vexlo_filter_fit vexlo_filter_pass vexlo_count vexlo_open_error
        vexlo_set_log)
  if(NOT want IN_LIST found)
    message(FATAL_ERROR "missing export: ${want}")
  endif()
endforeach()
list(LENGTH found n)
message(STATUS "${n} exported symbols, all expected")
