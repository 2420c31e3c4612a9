#pragma once
#include "left/Left.h"
