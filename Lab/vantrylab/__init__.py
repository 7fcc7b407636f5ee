"""The throw-away network as a library: for Lab/lab, for ./run and for the end-to-end tests."""
