#pragma once
// The benchmark's include.
#include "services/ServiceKit.h"
