#include "low/Low.h"
#include "high/High.h"
