// The new text and the text map.
#pragma once

namespace vesk {

void reorder_procedures();

} // namespace vesk
