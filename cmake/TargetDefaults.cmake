# SPDX-License-Identifier: MIT
# What every target of the project is compiled with. A folder may add to the options of warnings
# by PELLOX_MORE_WARNING_OPTIONS.

function(pellox_target_defaults target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wnon-virtual-dtor
        -Woverloaded-virtual -Wformat=2 -Wundef
        # Qt's logging macros leave their variadic part empty, which C++20 allows.
        $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
        ${PELLOX_MORE_WARNING_OPTIONS}
        $<$<BOOL:${PELLOX_WARNINGS_AS_ERRORS}>:-Werror>)
    target_compile_definitions(${target} PRIVATE
        QT_NO_CAST_FROM_ASCII QT_NO_KEYWORDS QT_NO_FOREACH QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
        QT_DEPRECATED_WARNINGS QT_MESSAGELOGCONTEXT)
    if(PELLOX_SANITIZERS)
        target_compile_options(${target} PRIVATE
            -fsanitize=${PELLOX_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${PELLOX_SANITIZERS})
    endif()
endfunction()
