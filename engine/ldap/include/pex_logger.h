/*
 * pex_logger.h - the diagnostic logger that every unit writes through.
 *
 * Logging is off unless PEX_Log_Config.txt in the working directory
 * switches it on; see pex_logger.cpp for the file format and layout.
 */
#ifndef PEX_LOGGER_H
#define PEX_LOGGER_H

#include <wchar.h>

#include "orvldap.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum Severity {
    PEX_FATAL = 1,
    PEX_ERROR = 2,
    PEX_WARNING = 3,
    PEX_INFO = 4,
    PEX_TRACE_MIN = 5,
    PEX_TRACE_MAX = 6
} Severity;

/* Writes one log line; every text may be NULL. */
ORV_API void LogPEXMessage(const char* sourceFile, int lineNumber, const char* event,
                           const char* messageId, int severity, const char* messageText,
                           const char* messageDescription, const char* userAction);
/* Starts the logger (once); the location argument is accepted and not used. */
ORV_API void InitializePEXLogger(const wchar_t* configFileLocation);
ORV_API void GetConfigurationOptions(const wchar_t* directory, int* found);
ORV_API int RotateAndOpenLogFile(void);
ORV_API void AddBanner(void);
ORV_API void UpdateLogFileLocation(void);
/* Writes the local time in asctime form without its line feed; out holds 26 bytes. */
ORV_API void getlocaltime(char* out);

#ifdef __cplusplus
}
#endif

#endif /* PEX_LOGGER_H */
