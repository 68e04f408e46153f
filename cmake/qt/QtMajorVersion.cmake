# SPDX-License-Identifier: MIT
# Finds the Qt that PELLOX_QT_MAJOR_VERSION names. Defines
#   PELLOX_QT              its package and the namespace of its targets, as in Qt5::Core
#   PELLOX_QT_OLDEST       its oldest version that will do
#   PELLOX_QT_TEXT_CODECS  the target that holds QTextCodec, where that is not Core itself

if(PELLOX_QT_MAJOR_VERSION EQUAL 5)
    set(PELLOX_QT_OLDEST 5.12)
    set(PELLOX_QT_TEXT_CODECS "")
elseif(PELLOX_QT_MAJOR_VERSION EQUAL 6)
    set(PELLOX_QT_OLDEST 6.2)
    set(PELLOX_QT_TEXT_CODECS Qt6::Core5Compat)
else()
    message(FATAL_ERROR "PELLOX_QT_MAJOR_VERSION is ${PELLOX_QT_MAJOR_VERSION}; 5 and 6 are known")
endif()
set(PELLOX_QT Qt${PELLOX_QT_MAJOR_VERSION})

find_package(${PELLOX_QT} ${PELLOX_QT_OLDEST} REQUIRED COMPONENTS Core Concurrent)
if(PELLOX_QT_TEXT_CODECS)
    find_package(${PELLOX_QT} ${PELLOX_QT_OLDEST} REQUIRED COMPONENTS Core5Compat)
endif()
