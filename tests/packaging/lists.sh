#!/usr/bin/env bash
# scripts/deps's lists: each package is named in one list only (so a list split again cannot
# silently lose one), and apt knows every name (a typo would only show on a fresh machine).
set -euo pipefail
cd "$(dirname "$0")/../.."
status=0
lists=$(sed -n 's/^\([a-z]*\)=($/\1/p' scripts/deps)
[ -n "$lists" ] || { echo "FAIL: found no lists in scripts/deps" >&2; exit 1; }
for list in $lists; do
  # test, bench, stores and desktops stand on others: their own members are what --list adds
  # to those.
  case "$list" in
    test) base=$(scripts/deps --list run headless wayland check package) ;;
    bench) base=$(scripts/deps --list run headless wayland check stores) ;;
    stores) base=$(scripts/deps --list run headless wayland check package test bench) ;;
    desktops) base=$(scripts/deps --list run headless wayland check package test) ;;
    *) base="" ;;
  esac
  comm -23 <(scripts/deps --list "$list" | sort) <(sort <<<"$base") | sed "s/^/$list /"
done >"${TMPDIR:-/tmp}/vantrel-lists.$$"
duplicates=$(awk '{ print $2 }' "${TMPDIR:-/tmp}/vantrel-lists.$$" | sort | uniq -d)
if [ -n "$duplicates" ]; then
  echo "FAIL: in two lists:" $(grep -wF "$duplicates" "${TMPDIR:-/tmp}/vantrel-lists.$$") >&2
  status=1
fi
unknown=$(awk '{ print $2 }' "${TMPDIR:-/tmp}/vantrel-lists.$$" | sort -u |
  xargs apt-cache policy 2>/dev/null | awk '/^[^ ]/ { p = $1 } /Candidate: \(none\)/ { print p }')
known=$(awk '{ print $2 }' "${TMPDIR:-/tmp}/vantrel-lists.$$" | sort -u |
  xargs apt-cache policy 2>/dev/null | grep -c '^[^ ]' || true)
total=$(awk '{ print $2 }' "${TMPDIR:-/tmp}/vantrel-lists.$$" | sort -u | wc -l)
rm -f "${TMPDIR:-/tmp}/vantrel-lists.$$"
if [ -n "$unknown" ] || [ "$known" -ne "$total" ]; then
  echo "FAIL: apt has no candidate for some names ($known of $total known): $unknown" >&2
  status=1
fi
[ "$status" -eq 0 ] && echo "PASS: $total packages in $(wc -w <<<"$lists") lists"
exit $status
