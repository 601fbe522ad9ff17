# SPDX-License-Identifier: Apache-2.0
# The one place that says which version this is is the call of project() and the pre-release below it;
# packages and pkg-config learn it from here.
set(NELVO_VERSION ${PROJECT_VERSION})
if(NELVO_PRERELEASE)
    string(APPEND NELVO_VERSION -${NELVO_PRERELEASE})
endif()
string(REPLACE - "~" NELVO_PACKAGE_VERSION ${NELVO_VERSION}) # sorts before the release
