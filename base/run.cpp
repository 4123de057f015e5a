// The run records.  Every step of a run reads and fills these two; a new
// run starts from fresh ones (see vesk_main).
#include "base/bin.h"
#include "base/options.h"

namespace vesk {

Bin bin;
Options option;

} // namespace vesk
