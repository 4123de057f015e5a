// The mdebug symbol table: procedure discovery and its update.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

void mdebug_interface();
void move_mdebug(const uint8_t *contents, size_t length, uint64_t new_file_offset);
void update_mdebug();
void fixmdebug(uint8_t *buffer, size_t size, uint64_t file_off);

// Set by the update when a procedure descriptor's address lies outside
// .text (reported at the end with -v).
extern int mdebug_bad_proc_info;

// The run-long state of discovery and update (the 64 K wrap-around
// counters, the file-name copies, the bad-info flag) back to its start;
// for tests that run several tables in one process.
void reset_mdebug_discovery();
void reset_mdebug_update();

} // namespace vesk
