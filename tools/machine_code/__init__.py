"""What the compiler makes of the generated kernels on each GPU architecture, without a GPU."""
