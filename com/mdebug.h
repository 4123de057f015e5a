// The mdebug symbol table: procedure discovery and its update.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

void mdebug_interface();
// Begun on the second core once the layout is final (when nothing can move
// the section before its turn), finished in its turn.
void start_mdebug_update();
void update_mdebug();
void fixmdebug(uint8_t *buffer, size_t size, uint64_t file_off);

} // namespace vesk
