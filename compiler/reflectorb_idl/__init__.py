"""Interface compiler of Reflect ORB."""

VERSION = "0.1.0"
