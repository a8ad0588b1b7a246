// An appliance in which everything that kestactl reads is the input: NV image, system backup area,
// files, and what the platform's commands print. Nothing of it is the machine's own.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace fuzz {

// Once.
void prepare_appliance();

// Inside the scratch root, for each input: 664 bytes of the NV image, then records of a byte that
// chooses a place, two bytes of a length (the low one first), and so many bytes. What is missing is
// not there.
void fill_appliance(const uint8_t *data, size_t size);

// Nothing of the platform is left open.
void require_closed();

}  // namespace fuzz
