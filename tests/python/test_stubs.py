"""The type stubs that ship with the module name what the module has, and the module nothing
public that the stubs leave out."""

import ast
import pathlib

import zelcapi
from zelcapi import _zelcapi

STUBS = pathlib.Path(_zelcapi.__file__).with_name("_zelcapi.pyi")


def stub_names():
    names = {}
    for node in ast.parse(STUBS.read_text()).body:
        if isinstance(node, ast.ClassDef):
            members = {item.name for item in node.body if isinstance(item, ast.FunctionDef)}
            members |= {item.target.id for item in node.body if isinstance(item, ast.AnnAssign)}
            names[node.name] = members
        elif isinstance(node, ast.FunctionDef):
            names[node.name] = set()
    return names


def test_every_stub_names_a_member_of_the_module():
    for name, members in stub_names().items():
        assert hasattr(_zelcapi, name), name
        owner = getattr(_zelcapi, name)
        if isinstance(owner, type) and issubclass(owner, Exception):
            continue  # an exception's attributes are its instances'
        for member in members:
            assert hasattr(owner, member), f"{name}.{member}"


def test_every_public_name_of_the_module_has_a_stub():
    stubbed = stub_names()
    for name in dir(_zelcapi):
        if not name.startswith("_"):
            assert name in stubbed, name
    for name in zelcapi.__all__:
        assert hasattr(zelcapi, name), name
