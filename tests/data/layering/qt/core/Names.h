#pragma once
#include <QString>
