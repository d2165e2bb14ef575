#pragma once

/// How often the program has asked for heap memory until now, by malloc, calloc, realloc or operator new. From any
/// thread.
long allocations();
