# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers

# Sanitizers apply to everything built here: library, tests and tools.
if(QORV_SANITIZE)
  add_compile_options(-fsanitize=${QORV_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${QORV_SANITIZE})
  if(QORV_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# Warnings and floating-point rules of the project's own targets. No contraction into fused
# multiply-add: results must not depend on the compiler or the processor.
function(qorv_target_options target)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wshadow -Wpedantic -ffp-contract=off -fno-math-errno>)
  if(QORV_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# The libraries' own code (src/) also keeps every narrowing conversion explicit.
function(qorv_library_options target)
  qorv_target_options(${target})
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>)
endfunction()
