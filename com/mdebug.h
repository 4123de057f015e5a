// The mdebug symbol table: procedure discovery and its update.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

void mdebug_interface();
void move_mdebug(const uint8_t *contents, size_t length, uint64_t new_file_offset);
void update_mdebug();
void fixmdebug(uint8_t *buffer, size_t size, uint64_t file_off);

} // namespace vesk
