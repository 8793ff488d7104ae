// Symbol visibility of Corvane's public classes and functions.
#pragma once

#include <Fundel/Export.h>

#define CORVANE_API FUNDEL_API
