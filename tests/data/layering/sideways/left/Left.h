#pragma once
#include "base/Base.h"
