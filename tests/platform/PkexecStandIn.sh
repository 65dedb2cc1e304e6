#!/bin/sh
# Stands in for pkexec in tests. "allow" runs the program as pkexec does for
# a user who authorized: with a clean environment. "dismiss" exits as pkexec
# does when the user closes the password prompt.
mode=$1
shift
case $mode in
  allow) exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@" ;;
  dismiss)
    echo "Error executing command as another user: Request dismissed" >&2
    exit 126 ;;
esac
exit 127
