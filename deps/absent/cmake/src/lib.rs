// Empty: stands in for a build dependency that is never run.
