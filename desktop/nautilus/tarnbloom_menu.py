# Written by Tarnbloom (tarnbloom menu integrations). Changes here are replaced.
"""The Tarnbloom submenu in Nautilus: Enlarge 2x, 4x and 8x, then the recipes
chosen with `tarnbloom menu add`.

The menu file is read each time the menu is drawn, so a change to the
recipes shows at once. A missing or damaged file leaves only the Enlarge
entries: nothing in it is trusted until it has the exact expected shape.
Commands run without a shell, so no title or id can become one.
"""

import json
import os
import subprocess

TARNBLOOM = "tarnbloom"  # the executable; filled in when installed
GROUP_ID = "group.com.tarnbloom"
MENU_FILE_NAME = "finder-menu.json"
MENU_FILE_VERSION = 1
MAX_MENU_FILE_BYTES = 1 << 20

ENLARGE_ENTRIES = [
    ("enlarge-2", "Enlarge 2\u00d7", ""),
    ("enlarge-4", "Enlarge 4\u00d7", ""),
    ("enlarge-8", "Enlarge 8\u00d7", ""),
]


def menu_file_path():
    """Where tarnbloom publishes the menu, by the same rules it uses."""
    override = os.environ.get("TARNBLOOM_MENU_CONTAINER")
    if override:
        return os.path.join(override, MENU_FILE_NAME)
    for variable in ("TARNBLOOM_HOME", "XDG_DATA_HOME"):
        folder = os.environ.get(variable, "")
        if os.path.isabs(folder):
            return os.path.join(folder, GROUP_ID, MENU_FILE_NAME)
    return os.path.join(os.path.expanduser("~"), ".local", "share", GROUP_ID, MENU_FILE_NAME)


def _unique_keys(pairs):
    keys = [key for key, _ in pairs]
    if len(keys) != len(set(keys)):
        raise ValueError("a key appears twice")
    return dict(pairs)


def _is_usable_id(text):
    return bool(text) and not any(ord(c) < 0x20 or ord(c) == 0x7F for c in text)


def recipe_entries(path):
    """(entry, title, summary) of each recipe in the menu file; none when the
    file is missing, too large or not exactly a menu file."""
    try:
        with open(path, "rb") as handle:
            data = handle.read(MAX_MENU_FILE_BYTES + 1)
        if len(data) > MAX_MENU_FILE_BYTES:
            return []
        document = json.loads(data.decode("utf-8"), object_pairs_hook=_unique_keys)
    except (OSError, ValueError, RecursionError):
        return []
    if not isinstance(document, dict) or set(document) != {"version", "items"}:
        return []
    version = document["version"]
    if type(version) is not int or version != MENU_FILE_VERSION:
        return []
    items = document["items"]
    if not isinstance(items, list):
        return []
    entries = []
    for item in items:
        if not isinstance(item, dict) or set(item) != {"id", "title", "summary"}:
            return []
        if not all(isinstance(item[key], str) for key in item):
            return []
        if not _is_usable_id(item["id"]):
            return []
        entries.append(("recipe:" + item["id"], " ".join(item["title"].split()), item["summary"]))
    return entries


def menu_entries():
    return ENLARGE_ENTRIES + recipe_entries(menu_file_path())


def run_entry(entry, paths):
    subprocess.Popen([TARNBLOOM, "menu-run", "--entry", entry, "--"] + paths,
                     stdin=subprocess.DEVNULL, start_new_session=True)


try:
    import gi

    try:
        gi.require_version("Nautilus", "4.0")
    except ValueError:
        gi.require_version("Nautilus", "3.0")
    from gi.repository import GObject, Nautilus
except (ImportError, ValueError):
    Nautilus = None


def _local_paths(files):
    """The paths of the selection when every item is a local image or folder."""
    paths = []
    for item in files:
        location = item.get_location()
        path = location.get_path() if location is not None else None
        if path is None:
            return []
        if not (item.is_directory() or item.get_mime_type().startswith("image/")):
            return []
        paths.append(path)
    return paths


if Nautilus is not None:

    class TarnbloomMenuProvider(GObject.GObject, Nautilus.MenuProvider):
        def get_file_items(self, *arguments):
            # Nautilus 43 and later pass (files); earlier versions (window, files).
            paths = _local_paths(arguments[-1])
            if not paths:
                return []
            top = Nautilus.MenuItem(name="Tarnbloom::Menu", label="Tarnbloom")
            submenu = Nautilus.Menu()
            top.set_submenu(submenu)
            for index, (entry, title, summary) in enumerate(menu_entries()):
                item = Nautilus.MenuItem(name="Tarnbloom::Entry%d" % index, label=title,
                                         tip=summary)
                item.connect("activate", lambda _item, e=entry: run_entry(e, paths))
                submenu.append_item(item)
            return [top]
