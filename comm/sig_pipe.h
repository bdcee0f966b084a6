#pragma once

namespace NEUtils {

// Once for the process: a write to a closed peer gives an error and no longer ends the process. The
// disposition is an empty handler, since child programs would take over an ignored signal.
bool SetSigPipeHandler();

}  // namespace NEUtils
