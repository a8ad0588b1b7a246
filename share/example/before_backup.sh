#!/bin/sh
# Run before a backup.
exit 0
