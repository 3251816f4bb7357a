"""Where the tests run."""
import subprocess


def images_are_believed(directory="."):
    """Whether the program believes what it knows of images there, for the file system records every change. Not so in
    memory, nor on an overlay, such as that of a container."""
    kind = subprocess.run(["stat", "-f", "-c", "%T", directory], capture_output=True, text=True, check=True).stdout
    return kind.strip() in ("ext2/ext3", "xfs", "btrfs", "f2fs", "bcachefs")
