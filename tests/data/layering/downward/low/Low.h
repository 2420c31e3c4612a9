// Low.
#pragma once
