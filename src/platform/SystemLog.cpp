#include "platform/SystemLog.h"

namespace korvane {

void SystemLog::write(LogMessage message, std::initializer_list<FormatArgument> arguments) {
    const LogMessageForm& form = formOf(message);
    writeLine(form, formatText(form.text, arguments));
}

}  // namespace korvane
