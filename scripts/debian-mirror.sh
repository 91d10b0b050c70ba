# Sourced by scripts/boot-image.sh and scripts/debian13.sh: the Debian mirror
# this machine's own apt uses (its first one, which is the main archive).
machine_mirror() {
    local uri
    uri=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -1)
    [ -n "$uri" ] || uri=$(awk '$1 == "deb" { print $2; exit }' /etc/apt/sources.list 2>/dev/null)
    echo "${uri%% *}"
}
