// Compiled by the test logger_format, never linked: each call's format disagrees with its arguments, and each
// of the three ways into the log must warn about it.
#include "msplatform/eventLogger.h"

void FormatsThatDisagreeWithTheirArguments() {
    eventLoggerDoOut("%d", "one");
    eventLogOut("%s", 2);
    errorLogOut("%d %d", 3);
}
