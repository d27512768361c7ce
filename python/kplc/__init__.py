"""Read and write PLC tags by name through the kplc tool's session mode."""
