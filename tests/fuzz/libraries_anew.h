// The two libraries of the etcd platform remember things for as long as their process lives: here, as long as a test wants.
#pragma once

namespace fuzz {

void begin_sanfwctl_anew();
void begin_sbacc_anew();

}  // namespace fuzz
