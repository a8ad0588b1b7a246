#!/bin/sh
# Run after a restore.
exit 0
