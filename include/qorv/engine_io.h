/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/* Qorv engine: reading and writing cloud files (PLY, PCD, ASC) and depth images. */
#ifndef QORV_ENGINE_IO_H_
#define QORV_ENGINE_IO_H_

#include "engine.h"

#endif /* QORV_ENGINE_IO_H_ */
