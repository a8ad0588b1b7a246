// Copies a local archive to a slot of the system backup area: what the two flows into the area
// have in common. They differ in their texts.
#pragma once

#include "text_field.h"

namespace kesta {

enum class ToSlotStep {
    measure,
    allocate,
    open,
    read,
    announce,  // the file is in memory and goes to the slot next
    write,
};

// What a flow says about one step; size and error are those of the step.
using ReportStep = void (*)(ToSlotStep step, const char *file, const char *slot, unsigned int size, int error);

// Returns 0 or KESTA_ERR, with the failed step reported. A short read is not detected: a file that
// shrinks meanwhile is filled up with zeros.
int archive_to_slot(const char *file, const char *slot, ReportStep report);

}  // namespace kesta
