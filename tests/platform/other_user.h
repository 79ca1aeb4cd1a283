// Stands in tests/support/; kept for those who look for it here.

#pragma once

#include "tests/support/other_user.h"
