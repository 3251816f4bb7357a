#include "commands/Commands.h"

namespace kelvane::tool {

Outcome serve(const ServeArguments& arguments)
{
    Outcome outcome;
    outcome.isDone = serveOther(arguments);
    return outcome;
}

} // namespace kelvane::tool
