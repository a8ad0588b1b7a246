#include "library_test.h"
