#ifndef XPON_LOGGER_RAW_CATEGORY_H
#define XPON_LOGGER_RAW_CATEGORY_H

#ifdef __cplusplus
extern "C" {
#endif

/* The back-end handle of a log category, handed to C-level libraries
   (Logger::get_raw_zlog_category gives one). */
typedef struct zlog_category_s zlog_category_t;

/* Writes one line through a category handle at a numeric level (0 progress ... 5 critical),
   attributed to the given source position; a null handle writes nothing. */
void xpon_raw_log(zlog_category_t* category, int level, const char* file, int line, const char* function,
                  const char* text);

#ifdef __cplusplus
}
#endif

#endif
