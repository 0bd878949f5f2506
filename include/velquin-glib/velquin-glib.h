/* The Velquin C API: include this header only. */
#pragma once

#include "velquin-types.h"
#include "velquin-sdk.h"
#include "velquin-local-store.h"
