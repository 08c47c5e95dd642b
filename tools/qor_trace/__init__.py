# SPDX-License-Identifier: Apache-2.0
"""Reads the recordings of libqor_bus: what each thread and module did, and when."""
