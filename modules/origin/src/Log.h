// Log lines with the calling source's path and line.
#pragma once

#include "velclog.h"

#define VEL_LOG_INFO(...) ::Quorvis::VelClog::clog_printf(0, __FILE__, __LINE__, __VA_ARGS__)
#define VEL_LOG_WARN(...) ::Quorvis::VelClog::clog_printf(1, __FILE__, __LINE__, __VA_ARGS__)
#define VEL_LOG_ERROR(...) ::Quorvis::VelClog::clog_printf(2, __FILE__, __LINE__, __VA_ARGS__)
