/* Compiles the client header as C, so that a C client can use it as it stands. */
#include "xpon/system_mgr/api.h"

#include <string.h>

size_t system_mgr_api_c_alarm_size(void) {
  return sizeof(Alarm);
}

size_t system_mgr_api_c_text_offset(void) {
  return offsetof(Alarm, text);
}

/* Fills a record the way a C publisher would and copies its bytes out. */
void system_mgr_api_c_fill_alarm(unsigned char out[305]) {
  Alarm alarm;
  memset(&alarm, 0, sizeof alarm);
  alarm.state = SYSTEM_MGR_ALARM_BACK_TO_NORMAL;
  alarm.alarm_id = SYSTEM_MGR_ALARM_RAM;
  alarm.value[0] = 42;
  strcpy(alarm.text, "Free RAM is 42% is back to normal");
  memcpy(out, &alarm, sizeof alarm);
}

int system_mgr_api_c_request_id(void) {
  return IPC_SYSTEM_MGR__GET_TEMP;
}
