#pragma once

namespace NEUtils {

// Once for the process: a write to a closed peer gives an error instead of ending the process. It is done by an
// empty handler, since child programs would inherit an ignored signal.
bool SetSigPipeHandler();

}  // namespace NEUtils
