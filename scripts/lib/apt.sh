# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# What the scripts that fetch Debian packages share. To be sourced.

UPDATE_TRIES=${UPDATE_TRIES:-5}
UPDATE_PAUSE_S=${UPDATE_PAUSE_S:-10}

# update_lists COMMAND...: a mirror that is just being updated answers with errors for a while.
update_lists() {
    local try
    for ((try = 1; try <= UPDATE_TRIES; try++)); do
        if "$@" update -qq; then
            return
        fi
        echo "apt-get update failed (try $try of $UPDATE_TRIES)" >&2
        ((try == UPDATE_TRIES)) || sleep "$UPDATE_PAUSE_S"
    done
    return 1
}

# foreign_apt STATE ARCHITECTURE TOOL ARGUMENT...: runs an apt tool as if nothing were installed, for
# an architecture that need not be this machine's, with lists of its own under STATE. Changes nothing
# of the machine's own packages and needs no root. FOREIGN_SOURCES: a folder of sources in place of
# the machine's.
foreign_apt() {
    local state=$1 architecture=$2 tool=$3
    shift 3
    mkdir -p "$state/lists/partial" "$state/archives/partial"
    : >"$state/no-packages-installed"
    "$tool" \
        -o APT::Architecture="$architecture" -o APT::Architectures::="$architecture" \
        -o Dir::State::lists="$state/lists" \
        -o Dir::State::status="$state/no-packages-installed" \
        ${FOREIGN_SOURCES:+-o "Dir::Etc::sourceparts=$FOREIGN_SOURCES"} \
        -o Dir::Cache::archives="$state/archives" \
        -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
        -o APT::Sandbox::User="$(id -un)" -o Debug::NoLocking=1 "$@"
}

# update_foreign_lists STATE ARCHITECTURE: one archive's stale list, updates of the release for
# instance, need not lack anything that is wanted: what does, tells itself when it is fetched.
update_foreign_lists() {
    UPDATE_TRIES=3 UPDATE_PAUSE_S=5 update_lists foreign_apt "$1" "$2" apt-get ||
        echo "going on with the lists that there are" >&2
}
