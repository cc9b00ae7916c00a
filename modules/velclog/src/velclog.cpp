#include "velclog.h"
