# SPDX-License-Identifier: Apache-2.0
# The one place that says which version this is is the call of project() and the pre-release below it;
# packages, the log and pkg-config learn it from here.
set(NELVO_VERSION ${PROJECT_VERSION})
set(NELVO_LOG_VERSION v${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
if(NELVO_PRERELEASE)
    string(APPEND NELVO_VERSION -${NELVO_PRERELEASE})
    string(APPEND NELVO_LOG_VERSION -${NELVO_PRERELEASE})
endif()
string(REPLACE - "~" NELVO_PACKAGE_VERSION ${NELVO_VERSION}) # sorts before the release
