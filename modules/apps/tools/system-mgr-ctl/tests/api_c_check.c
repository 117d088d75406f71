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

/* The request catalogue read from C: each request's id and name. */
#define SYSTEM_MGR_API_C_REQUEST(name, id, families, argument, shape, record) {id, "IPC_SYSTEM_MGR__" #name},
static const struct {
  int id;
  const char* name;
} system_mgr_api_c_requests[] = {SYSTEM_MGR_REQUESTS(SYSTEM_MGR_API_C_REQUEST)};
#undef SYSTEM_MGR_API_C_REQUEST

size_t system_mgr_api_c_request_count(void) {
  return sizeof system_mgr_api_c_requests / sizeof system_mgr_api_c_requests[0];
}

const char* system_mgr_api_c_request_name(int id) {
  size_t i;
  for (i = 0; i < system_mgr_api_c_request_count(); ++i) {
    if (system_mgr_api_c_requests[i].id == id) {
      return system_mgr_api_c_requests[i].name;
    }
  }
  return NULL;
}
