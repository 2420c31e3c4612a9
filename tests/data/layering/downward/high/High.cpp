#include "high/High.h"
#include "low/Low.h"
