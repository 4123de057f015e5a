// The mdebug symbol table: procedure discovery and its update.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

void mdebug_interface();
void update_mdebug();
void fixmdebug(uint8_t *buffer, size_t size, uint64_t file_off);

} // namespace vesk
